// provisorObject: the service's one message-queue thread, "provisor". It owns every provisioning
// run: messages from the other applications, its timers (console keys, plug-and-play wait) and the
// configuration-store monitor callback all run on it, one at a time.
#pragma once

#include <cstdint>
#include <string>

#include "autoPolicy.h"
#include "autoTimer.h"
#include "console.h"
#include "msgqueue.h"
#include "sipHelper.h"

class provisorObject : public chThreadLocal, public autoTimerInc {
 public:
  provisorObject();
  ~provisorObject() override;

  // The message table; false lets the message go on to the default handling.
  bool TryThreadMessage(msgObject& msg) override;
  bool OnTimerMessage(msgObject& msg) override;
  // Loads the translation table, makes the thread reachable, starts the console-key poll and, in
  // normal mode, plug-and-play or the power-on timer and the policies.
  int Start();
  void Stop();

  // Arms the plug-and-play wait timer (-1 means 10 000 ms) and marks the service as waiting.
  void SetPnpTimer(int32_t milliseconds);
  // Arms the power-on run: 500 ms after start, or a random moment up to nPowerOnRandomDelay seconds.
  void ArmPowerOnTimer();

  // The run frame (provisorRun.cpp). Asks the phone application every `stepSeconds` whether a call
  // is in progress, for at most an hour: true once it is not, false when the hour ran out.
  bool WaitWhileTalking(int32_t stepSeconds);
  // Opens a run: the Begin line, the busy wait, runState 1. False when the phone stayed busy.
  bool BeginRun();
  // Ends a run: the result broadcast, the zero-touch switch, a pending reboot, the repeat re-arm.
  int AfterAutoProvision(int32_t result);
  // Marks that the phone must restart after this run (once), unless a call keeps it busy.
  void AnnounceReboot();
  // Flushes, unregisters and restarts the phone; 0 when a call kept it from doing so.
  int RebootNow();

  int32_t powerOnState = 0;  // 0 none finished, 1 zero-touch first run, 2 a run has finished
  int32_t rebootPending = 0;
  int32_t runState = 0;  // 0 idle, 1 running, 2 waiting for plug-and-play
  int32_t networkWaitCount = 0;
  int32_t resultPending = 0;

 private:
  bool OnCheckAutopResult(msgObject& msg);
  bool OnSetHostName(msgObject& msg);
  bool OnGetAutoProvision(msgObject& msg);
  bool OnReparseConfig(msgObject& msg);
  void OnConsoleKeyTimer(msgObject& msg);
  void StartPnpOrPowerOn();
  // Run lifecycle handlers (provisorRun.cpp); true when the message counts as handled.
  bool OnLaunchAutoProvision(msgObject& msg);
  int32_t UpdateConfig(msgObject& msg);
  bool OnPnpResponseMessage(msgObject& msg);
  void OnPnpResponse(msgObject& msg) { OnPnpResponseMessage(msg); }
  bool OnStartAutoProvisionUrl(msgObject& msg);
  bool OnWeeklyCheck(msgObject& msg);
  bool OnCwmpDownloadRom(msgObject& msg);
  int32_t FinishPnpRun(const msgObject& msg, int32_t result);

  chStdInput keyboard;
  PNPManger pnpManager;
  chThreadTimer timerPnpRequest;
};

// The process-wide zero-touch flag ("-byzero") and the update policies.
extern int32_t g_zeroTouch;
extern policyManger g_policyManager;

// The text carried as a message's extra data, up to its terminating zero and never past its size.
std::string messageExtraText(const msgObject& msg);

// The wait before a restart that lets the SIP side unregister: the configured seconds of
// UnregisterOnReboot, none for 0 or less, at most 60 s.
uint32_t unregisterDelayMs(int32_t configuredSeconds);

// Loads the translation table as at start and on the BACK key; the loader's result.
int loadTranslationTable();

// The whole process entry (banner, thread, Start, loop, Stop); main() only calls it.
int provisorMain(int argc, char** argv);
