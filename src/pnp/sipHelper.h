// PNPManger: plug-and-play discovery. A thread of its own, "app_PnpManger", in the service's process:
// it sends the SIP SUBSCRIBE for the "ua-profile" event to the multicast group named by the service's
// AP_MSG_PNP_REQUEST, listens on port 5059 for the NOTIFY that carries the provisioning URL, and
// posts that URL to the "provisor" thread (MSG_RESPOND_URL). The service owns the one instance.
//
// How the service drives it:
//   Start()                      before the first request; the thread is reachable by name on return.
//   AP_MSG_PNP_REQUEST (post)    wParam 0, lParam 0, extra data: the multicast address text with its
//                                terminating zero. Sends a SUBSCRIBE at once and three more a second
//                                apart until a NOTIFY brings a URL.
//   MSG_RESPOND_URL (received)   at most once per request: extra data is the URL text with its
//                                terminating zero. No answer within the four tries: nothing is posted.
//   AP_MSG_PNP_DONE (post)       after the run the URL started; only logged.
//   Stop()                       before the service's thread goes away.
//
// Choices where the platform's description is silent:
// - The socket is opened when the thread starts; when the network was down then, the next request
//   tries again, so a phone whose link comes up late still discovers its server.
// - NOTIFYs are taken from the first SUBSCRIBE until 32 s (64 x T1, the lifetime of a non-INVITE
//   transaction in RFC 3261) after the last one: a server that answers late, even after the
//   service's 10 s wait has ended, is still heard, and its URL still runs. Once a URL is taken the
//   port stays open 32 s more, so that retransmissions of that NOTIFY are answered again.
// - The port monitor (300 ms) runs only inside that window; when the window closes the socket is
//   closed too, so an idle phone does not wake for plug-and-play and a late NOTIFY is refused by
//   the system instead of waiting for the next request. Datagrams that came before a request are
//   dropped unread: they cannot answer it.
// - Every request but ACK is answered (sipAnswer.h): 200 to the NOTIFY taken and to its
//   retransmissions, 400 to a malformed request or a NOTIFY without a usable URL, 481 to a NOTIFY
//   of another dialog (when PNPOutDialogMSGEnable is 0) or one that comes after a URL was taken,
//   489 to another event, 405 to another method.
// - A NOTIFY body is taken when it is one tftp, ftp, http or https URL with a host, or a text
//   without a scheme, which is a TFTP address like every source's text without "://". A local path
//   is never taken from the network.
#pragma once

#include <cstdint>
#include <deque>
#include <string>
#include <thread>
#include <utility>

#include "msgqueue.h"
#include "netSocket.h"

class sipMessage;
struct sipStatus;

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

  // The port the phone listens on and the port the SUBSCRIBE goes to.
  static constexpr uint16_t kPnpPort = 5059;
  static constexpr uint16_t kServerPort = 5060;

 private:
  void OnThreadStart();
  bool OpenSocket();
  void CloseSocket();
  void OnPnpRequest(const msgObject& msg);
  void SendRequest();
  std::string BuildSubscribe();
  void OnRequestTimer();
  void OnMonitorTimer();
  void OnWindowTimer();
  void DropQueuedDatagrams();
  void HandleDatagram(const ns_net::netAddress& from);
  void HandleNotify(const sipMessage& notify, const ns_net::netAddress& from, size_t size);
  void Answer(const sipMessage& request, const sipStatus& status, const ns_net::netAddress& from);
  bool AlreadyTaken(const sipMessage& notify) const;
  void RememberTaken(const sipMessage& notify);
  void PostUrl(const std::string& url);

  std::thread worker_;
  ns_net::netSocketUDP socket_;
  std::string requestTarget_;
  std::string lastCallId_;
  uint64_t requestCounter_ = 0;
  // From the first SUBSCRIBE until a URL is handed over or the window closes.
  bool requestOutstanding_ = false;
  // Call-ID and CSeq number of the NOTIFYs whose URL was handed over (the latest few).
  std::deque<std::pair<std::string, uint32_t>> takenNotifies_;
  chThreadTimer requestTimer_;
  chThreadTimer monitorTimer_;
  // Closes the window in which NOTIFYs are read (and the port monitor runs).
  chThreadTimer windowTimer_;
};

// A NOTIFY body the phone takes as its provisioning URL: one tftp, ftp, http or https URL with a
// host, or such a host and path without a scheme (TFTP); at most 355 characters of printable ASCII
// without blanks.
bool pnpIsAcceptableUrl(const std::string& url);
