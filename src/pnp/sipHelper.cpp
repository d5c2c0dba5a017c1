#define LOG_MODULE "./src/sipHelper"
#include "sipHelper.h"
#include "autopSettings.h"

#include <cstdio>
#include <functional>

#include "autopMessages.h"
#include "autopUrl.h"
#include "clock.h"
#include "device.h"
#include "log.h"
#include "paths.h"
#include "redact.h"
#include "registry.h"
#include "sipAnswer.h"
#include "sipMessage.h"

namespace {

constexpr const char* kVersionFile = "/phone/version";
constexpr const char* kSipAccountFile = "/config/user/voip/sipAccount0.cfg";
constexpr const char* kHwVersionFile = "/proc/hwversion";
constexpr const char* kDefaultVendor = "Valdrun";
constexpr const char* kDefaultEventModel = "DUNA-PH";
constexpr const char* kGenericModelName = "VideoPhone";
constexpr uint64_t kRequestIntervalMs = 1000;
constexpr uint64_t kLastRequestCounter = 3000;
constexpr uint64_t kMonitorIntervalMs = 300;
// 64 x T1: how long a server may still send (or retransmit) the NOTIFY of a SUBSCRIBE.
constexpr uint64_t kNotifyWindowMs = 32000;
// Enough to tell a retransmission from a new NOTIFY over the few requests of one boot.
constexpr size_t kTakenNotifiesKept = 8;
// Datagrams read per monitor tick, so a flood cannot hold the thread.
constexpr int kDatagramsPerTick = 32;
constexpr size_t kMaxUrlLength = 355;

std::string extraText(const msgObject& msg) {
  const char* data = static_cast<const char*>(msg.GetExtraData());
  if (!data) return std::string();
  size_t size = msg.GetExtraSize();
  size_t length = 0;
  while (length < size && data[length] != '\0') ++length;
  return std::string(data, length);
}

// Settings end up inside header values: line ends, other control characters and (for quoted
// values) double quotes would break the message, so they are left out.
std::string headerSafe(const std::string& text, bool quoted) {
  std::string out;
  for (char c : text) {
    unsigned char u = static_cast<unsigned char>(c);
    if (u < 0x20 || u == 0x7f || (quoted && c == '"')) continue;
    out += c;
  }
  return out;
}

std::string quoted(const std::string& text) { return "\"" + headerSafe(text, true) + "\""; }

void replaceAll(std::string& text, const std::string& mark, const std::string& value) {
  for (size_t pos = text.find(mark); pos != std::string::npos; pos = text.find(mark, pos + value.size()))
    text.replace(pos, mark.size(), value);
}

std::string hardwareVersion() {
  FilePtr file = openFile(kHwVersionFile, "rb");
  char word[64] = "";
  if (!file || fscanf(file.get(), "%63s", word) != 1) return std::string();
  return word;
}

std::string tickText() { return std::to_string(brisaGetTickCount()); }

std::string eventType(const std::string& event) {
  std::string type = event.substr(0, event.find(';'));
  while (!type.empty() && (type.back() == ' ' || type.back() == '\t')) type.pop_back();
  return type;
}

}  // namespace

bool pnpIsAcceptableUrl(const std::string& url) {
  if (url.empty() || url.size() > kMaxUrlLength) return false;
  for (char c : url) {
    unsigned char u = static_cast<unsigned char>(c);
    // A URL is plain ASCII: blanks would make it two, control bytes never belong in one.
    if (u <= 0x20 || u >= 0x7f) return false;
  }
  // A local path is for the phone's own applications, never for a server on the network.
  if (url[0] == '/') return false;
  const std::string full = url.find("://") == std::string::npos ? "tftp://" + url : url;
  const std::string scheme = full.substr(0, full.find("://"));
  bool fetchable = false;
  for (const char* known : {"tftp", "ftp", "http", "https"}) fetchable = fetchable || sipEqualNoCase(scheme, known);
  ns_net::autopUrl parsed;
  return fetchable && parsed.Parse(full) && parsed.IsValid();
}

PNPManger::PNPManger() : chThreadLocal(kThreadPnpManager) {}

PNPManger::~PNPManger() { Stop(); }

bool PNPManger::Start() {
  if (worker_.joinable()) return true;
  // Reachable by name before the service can post its request.
  if (!Launch()) return false;
  QueueCall([this] { OnThreadStart(); });
  worker_ = std::thread([this] { Run(); });
  return true;
}

void PNPManger::Stop() {
  if (!worker_.joinable()) return;
  Quit(0);
  worker_.join();
  Shutdown();
  CloseSocket();
}

bool PNPManger::TryThreadMessage(msgObject& msg) {
  switch (msg.message) {
    case MSG_THREAD_TIMER:
      return OnTimerMessage(msg);
    case AP_MSG_PNP_REQUEST:
      OnPnpRequest(msg);
      return true;
    case AP_MSG_PNP_DONE:
      LOG_DEB("Provisor has done the PNP upgrade");
      return true;
    default:
      return false;
  }
}

bool PNPManger::OnTimerMessage(msgObject& msg) {
  if (msg.wParam == requestTimer_.id()) {
    OnRequestTimer();
    return true;
  }
  if (msg.wParam == monitorTimer_.id()) {
    OnMonitorTimer();
    return true;
  }
  if (msg.wParam == windowTimer_.id()) {
    OnWindowTimer();
    return true;
  }
  return false;
}

void PNPManger::OnThreadStart() { OpenSocket(); }

bool PNPManger::OpenSocket() {
  if (socket_.handle() != ns_net::INVALID_SOCKET) return true;
  const char* reason = nullptr;
  if (brisaGetProfileInt(kSystemIni, kAutoProvisionSection, autop_key::kEnablePnp, 0) == 0)
    reason = "PNP CLOSED";
  else if (netGetNetworkSta() != kNetworkUp)
    reason = "NET UNAVAIL";
  if (reason) {
    LOG_IFO("No need PNP Monitor. Reason: %s", reason);
    return false;
  }
  const std::string ip = netGetLocalIP();
  if (!socket_.Open(ip.c_str(), kPnpPort)) {
    LOG_ERR("Fail to create PNP socket. IP[%s]", ip.c_str());
    return false;
  }
  return true;
}

void PNPManger::CloseSocket() {
  if (socket_.handle() == ns_net::INVALID_SOCKET) return;
  socket_.Close();
  LOG_DEB("Destory pnp socket");
}

void PNPManger::OnPnpRequest(const msgObject& msg) {
  const std::string target = extraText(msg);
  if (target.empty()) {
    LOG_WAR("PNP Request URL Invalid !");
    return;
  }
  requestTarget_ = target;
  if (!windowTimer_.IsTimerRuning()) DropQueuedDatagrams();
  requestOutstanding_ = true;
  SendRequest();
  requestCounter_ = kRequestIntervalMs;
  requestTimer_.KillTimer();
  requestTimer_.SetTimer(kRequestIntervalMs);
  LOG_IFO("Start Requset pnp url timer");
}

void PNPManger::SendRequest() {
  // The link may have come up since the thread started.
  if (!OpenSocket()) {
    LOG_DEB("PNP Socket invalid,EnablePnp=%d,PnpPort=%d,socket=%d",
            brisaGetProfileInt(kSystemIni, kAutoProvisionSection, autop_key::kEnablePnp, 0), kPnpPort, socket_.handle());
    return;
  }
  LOG_IFO("Requset PNP URL (%s)", requestTarget_.c_str());
  const std::string request = BuildSubscribe();
  ns_net::netAddress target;
  bool sent = ns_net::netSocket::SetAddress(target, requestTarget_.c_str(), kServerPort) &&
              socket_.SendTo(request.data(), static_cast<int32_t>(request.size()), target);
  LOG_IFO("send SubScribe request %s", sent ? "Ok" : "Failed");
  windowTimer_.SetTimer(kNotifyWindowMs);
  if (!monitorTimer_.IsTimerRuning()) {
    LOG_IFO("Start port monitor");
    monitorTimer_.SetTimer(kMonitorIntervalMs);
  }
}

std::string PNPManger::BuildSubscribe() {
  const std::string mac = netGetMACText();
  const std::string ip = netGetLocalIP();
  const std::string hostPort = ip + ":" + std::to_string(kPnpPort);
  const std::string domain = headerSafe(
      brisaGetProfileString(kSystemIni, kAutoProvisionSection, "PNPDomainName", kDefaultPnpMulticast), false);
  const std::string firmware = brisaGetProfileString(kVersionFile, "version", "FIRMWARE_VERSION", "");
  const std::string vendor = brisaGetProfileString(kSystemIni, kAutoProvisionSection, "PNPEventVendor", kDefaultVendor);
  std::string model = brisaGetProfileString(kVersionFile, "version", "modelName", kGenericModelName);
  if (model.empty() || model == kGenericModelName)
    model = brisaGetProfileString(kSystemIni, kAutoProvisionSection, "PNPEventModel", kDefaultEventModel);
  LOG_IFO("EventVendor = %s, EventModel = %s", logEscaped(vendor).c_str(), logEscaped(model).c_str());

  std::string userAgent = brisaGetProfileString(kSipAccountFile, "General", "UserAgent", "");
  replaceAll(userAgent, "$HW_VER", hardwareVersion());
  replaceAll(userAgent, "$FW_VER", firmware);
  replaceAll(userAgent, "$MAC", mac);

  const std::string uri = "sip:MAC" + mac + "@" + domain;
  lastCallId_ = tickText() + "@" + ip;
  std::string message = "SUBSCRIBE " + uri + " SIP/2.0\r\n";
  sipAppendHeader(message, "Via", "SIP/2.0/UDP " + hostPort + ";branch=z9hG4bK" + tickText());
  sipAppendHeader(message, "From", "<" + uri + ">;tag=" + tickText());
  sipAppendHeader(message, "To", "<" + uri + ">");
  sipAppendHeader(message, "Call-ID", lastCallId_);
  sipAppendHeader(message, "CSeq", "1 SUBSCRIBE");
  sipAppendHeader(message, "Contact", "<sip:MAC" + mac + "@" + hostPort + ">");
  sipAppendHeader(message, "Max-Forwards", "70");
  sipAppendHeader(message, "User-Agent", headerSafe(userAgent, false));
  sipAppendHeader(message, "Expires", "0");
  sipAppendHeader(message, "Event", "ua-profile;profile-type=\"device\";vendor=" + quoted(vendor) +
                                      ";model=" + quoted(model) + ";version=" + quoted(firmware));
  sipAppendHeader(message, "Accept", "application/url");
  sipAppendHeader(message, "Content-Length", "0\r\n");
  return message;
}

void PNPManger::OnRequestTimer() {
  // Killed before any re-arm, so the timer behaves the same whether it repeats or fires once.
  requestTimer_.KillTimer();
  SendRequest();
  requestCounter_ += kRequestIntervalMs;
  if (requestCounter_ > kLastRequestCounter) return;
  LOG_IFO("Set PNP Request Timer [%d]", static_cast<int32_t>(requestCounter_));
  requestTimer_.SetTimer(kRequestIntervalMs);
}

void PNPManger::OnWindowTimer() {
  windowTimer_.KillTimer();
  requestTimer_.KillTimer();
  monitorTimer_.KillTimer();
  if (requestOutstanding_) LOG_IFO("No answer to the PNP request, wait for the next one");
  requestOutstanding_ = false;
  LOG_IFO("Stop port monitor");
  CloseSocket();
}

void PNPManger::DropQueuedDatagrams() {
  if (socket_.handle() == ns_net::INVALID_SOCKET) return;
  int dropped = 0;
  while (dropped < kDatagramsPerTick * 32 && socket_.ReceiveFromTimed(0) > 0) ++dropped;
  if (dropped > 0) LOG_DEB("Drop %d datagrams that came before the PNP request", dropped);
}

void PNPManger::OnMonitorTimer() {
  monitorTimer_.KillTimer();
  if (socket_.handle() == ns_net::INVALID_SOCKET) return;
  for (int i = 0; i < kDatagramsPerTick && socket_.ReceiveFromTimed(0) > 0; ++i) HandleDatagram(socket_.LastSender());
  monitorTimer_.SetTimer(kMonitorIntervalMs);
}

void PNPManger::HandleDatagram(const ns_net::netAddress& from) {
  const ns_net::byteArray& data = socket_.ReceiveBuffer();
  const std::string sender = ns_net::netSocket::AddressToText(from);
  sipMessage message;
  const sipReadResult read = message.Read(reinterpret_cast<const char*>(data.data()), data.size());
  if (read == sipReadResult::kUnreadable) {
    LOG_WAR("Drop malformed SIP message from %s (%d bytes)", sender.c_str(), static_cast<int32_t>(data.size()));
    return;
  }
  // Responses (to the SUBSCRIBE) and ACKs are never answered.
  if (!message.isRequest() || message.method() == "ACK") {
    LOG_DEB("Ignore SIP %s from %s", message.isRequest() ? "ACK" : "response", sender.c_str());
    return;
  }
  const std::string* event = message.Find("Event");
  const sipStatus* refusal = nullptr;
  if (read == sipReadResult::kBad)
    refusal = &kSipBadRequest;
  else if (message.method() != "NOTIFY")
    refusal = &kSipMethodNotAllowed;
  else if (!event || eventType(*event) != "ua-profile")
    refusal = &kSipBadEvent;
  if (refusal) {
    LOG_WAR("Refuse SIP %s from %s (%d bytes): %d", logEscaped(message.method()).c_str(), sender.c_str(),
            static_cast<int32_t>(data.size()), refusal->code);
    Answer(message, *refusal, from);
    return;
  }
  HandleNotify(message, from, data.size());
}

void PNPManger::HandleNotify(const sipMessage& notify, const ns_net::netAddress& from, size_t size) {
  if (brisaGetProfileInt(kSystemIni, kAutoProvisionSection, autop_key::kPnpOutDialogMessages, 1) == 0) {
    LOG_DEB("HandleNoDialogMSG is 0");
    if (notify.callId() != lastCallId_) {
      LOG_WAR("Call-ID is not same as SubScribe!Do not Autop!");
      Answer(notify, kSipNoSuchDialog, from);
      return;
    }
  } else {
    LOG_DEB("HandleNoDialogMSG is 1");
  }
  // Deliberate departure: a retransmission means our answer was lost; the server stops only when
  // it gets one, but the URL it carries has already gone to the service.
  if (AlreadyTaken(notify)) {
    LOG_IFO("NOTIFY retransmitted (Call-ID %s, CSeq %u): answered again, URL already handed over",
            logEscaped(notify.callId()).c_str(), notify.cseqNumber());
    Answer(notify, kSipOk, from);
    return;
  }
  // Deliberate departure: on a shared LAN only the first answer to our own request counts, and
  // only when it is a URL this phone can fetch.
  if (!requestOutstanding_) {
    LOG_WAR("No PNP request outstanding, NOTIFY dropped");
    Answer(notify, kSipNoSuchDialog, from);
    return;
  }
  std::string url = notify.body();
  const std::string trimmed = "\t\r\n";
  url.erase(0, url.find_first_not_of(trimmed) == std::string::npos ? url.size() : url.find_first_not_of(trimmed));
  url.erase(url.find_last_not_of(trimmed) + 1);
  if (!pnpIsAcceptableUrl(url)) {
    LOG_WAR("NOTIFY body is not a provisioning URL (%d bytes), dropped", static_cast<int32_t>(url.size()));
    Answer(notify, kSipBadRequest, from);
    return;
  }
  LOG_IFO("URL = PNPManger::OnTimerMonitor (%s)", urlForLog(url).c_str());
  Answer(notify, kSipOk, from);
  LOG_IFO("Receive %d kill Request timer", static_cast<int32_t>(size));
  requestTimer_.KillTimer();
  requestOutstanding_ = false;
  // The port stays open for retransmissions of this NOTIFY.
  windowTimer_.SetTimer(kNotifyWindowMs);
  RememberTaken(notify);
  PostUrl(url);
}

void PNPManger::Answer(const sipMessage& request, const sipStatus& status, const ns_net::netAddress& from) {
  ns_net::netAddress to;
  if (!sipAnswerAddress(request, from, to)) {
    LOG_WAR("No usable Via in SIP %s from %s, not answered", logEscaped(request.method()).c_str(),
            ns_net::netSocket::AddressToText(from).c_str());
    return;
  }
  const std::string answer = sipBuildAnswer(request, status, from);
  if (!socket_.SendTo(answer.data(), static_cast<int32_t>(answer.size()), to))
    LOG_WAR("Fail to answer NOTIFY to %s", ns_net::netSocket::AddressToText(to).c_str());
}

bool PNPManger::AlreadyTaken(const sipMessage& notify) const {
  for (const auto& taken : takenNotifies_)
    if (taken.first == notify.callId() && taken.second == notify.cseqNumber()) return true;
  return false;
}

void PNPManger::RememberTaken(const sipMessage& notify) {
  takenNotifies_.emplace_back(notify.callId(), notify.cseqNumber());
  if (takenNotifies_.size() > kTakenNotifiesKept) takenNotifies_.pop_front();
}

void PNPManger::PostUrl(const std::string& url) {
  LOG_IFO("Post MSG_RESPOND_URL MSG To Provisor!!!");
  if (!msgPostMsgToThreadEx(msgGetThreadByName(kThreadProvisor), MSG_RESPOND_URL, 0, 0,
                            static_cast<uint32_t>(url.size() + 1), url.c_str()))
    LOG_ERR("Fail to post MSG_RESPOND_URL to %s", kThreadProvisor);
}
