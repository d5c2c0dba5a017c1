#define LOG_MODULE "./src/sipHelper"
#include "sipHelper.h"

// Placeholder until discovery lands: the thread is not started and no message is handled.
PNPManger::PNPManger() : chThreadLocal("app_PnpManger") {}
PNPManger::~PNPManger() { Stop(); }
bool PNPManger::Start() { return true; }
void PNPManger::Stop() {}
bool PNPManger::TryThreadMessage(msgObject&) { return false; }
bool PNPManger::OnTimerMessage(msgObject&) { return false; }
