// PNPManger: plug-and-play discovery. A thread of its own, "app_PnpManger", in the service's process:
// it sends the SIP SUBSCRIBE for the "ua-profile" event to the multicast group named by the service's
// AP_MSG_PNP_REQUEST, listens on port 5059 for the NOTIFY that carries the provisioning URL, and
// posts that URL to the "provisor" thread (MSG_RESPOND_URL). The service owns the one instance.
#pragma once

#include <memory>
#include <thread>

#include "msgqueue.h"

class PNPManger : public chThreadLocal {
 public:
  PNPManger();
  ~PNPManger() override;

  // Starts the "app_PnpManger" thread and makes it reachable by name; false when that fails.
  bool Start();
  // Ends the thread and waits for it; harmless when it never started.
  void Stop();

  bool TryThreadMessage(msgObject& msg) override;
  bool OnTimerMessage(msgObject& msg) override;

 private:
  std::thread worker_;
};
