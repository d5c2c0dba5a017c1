// provisorObject: the service's one message-queue thread, "provisor". It owns every provisioning
// run: messages from the other applications, its timers (console keys, plug-and-play wait) and the
// configuration-store monitor callback all run on it, one at a time. It owns everything a run depends
// on (the translation table, the run's context, the update policies and its timers) and hands the
// context down to the launch sequence.
#pragma once

#include <cstdint>
#include <string>

#include "autoPolicy.h"
#include "autoTimer.h"
#include "autopContext.h"
#include "autopTranslator.h"
#include "console.h"
#include "msgqueue.h"
#include "sipHelper.h"

class provisorObject : public chThreadLocal, public autoTimerInc {
 public:
  // `zeroTouch`: started with "-byzero" (runs come only from messages; no plug-and-play).
  explicit provisorObject(bool zeroTouch = false);
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
  // Opens a run: the Begin line, the busy wait, runState 1, a fresh status record naming `trigger`.
  // False when the phone stayed busy.
  bool BeginRun(const char* trigger);
  // Ends a run: the result broadcast, the zero-touch switch, a pending reboot, the repeat re-arm.
  int AfterAutoProvision(int32_t result);
  // Writes the run's status record (after the result broadcast, before any restart).
  void RecordRunStatus(bool succeeded);
  // Marks that the phone must restart after this run (once), unless a call keeps it busy.
  void AnnounceReboot();
  // Flushes, unregisters and restarts the phone; 0 when a call kept it from doing so.
  int RebootNow();

  // Loads the translation table as at start and on the BACK key; the loader's result.
  int LoadTranslationTable();

  autopContext context;  // the run's state and what it hands down
  int32_t rebootPending = 0;
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

  autopTranslator table;
  runStatus status;
  policyManger policies;
  chStdInput keyboard;
  PNPManger pnpManager;
  chThreadTimer timerPnpRequest;
  chThreadTimer consoleKeyTimer;
};

// The text carried as a message's extra data, up to its terminating zero and never past its size.
std::string messageExtraText(const msgObject& msg);

// The wait before a restart that lets the SIP side unregister: the configured seconds of
// UnregisterOnReboot, none for 0 or less, at most 60 s.
uint32_t unregisterDelayMs(int32_t configuredSeconds);

// The whole process entry (banner, thread, Start, loop, Stop); main() only calls it.
int provisorMain(int argc, char** argv);
