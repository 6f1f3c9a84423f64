#include "emulator/domains/ChatLists.h"

#include <algorithm>
#include <utility>

namespace kel::emulator {

using nlohmann::json;

namespace {

constexpr std::string_view kChatListPath = "/xmpp/individualChatList";

}  // namespace

ChatLists::ChatLists(DomainContext context) : context_(std::move(context)) {}

void ChatLists::install(ResourceRouter& resources) {
  resources.route("GET", kChatListPath, refusing([this](const ResourceRequest& r) {
                    requireExactPath(r);
                    return Reply::ok({{"chats", chats(r.userId)}});
                  }));
  for (const auto* method : {"PUT", "DELETE"}) {
    resources.route(method, "/xmpp/individualChatList/:jid",
                    refusing([this](const ResourceRequest& r) { return change(r); }));
  }
}

void ChatLists::checkJid(std::string_view jid, std::string_view where) {
  const auto at = jid.find('@');
  if (at == 0 || at == std::string_view::npos || at + 1 == jid.size() ||
      jid.find('@', at + 1) != std::string_view::npos) {
    std::string message(where);
    message.append("\"").append(jid).append("\" is no JID (local@domain)");
    throw Refusal(400, message);
  }
}

Reply ChatLists::change(const ResourceRequest& request) {
  requireExactPath(request);
  requireEmptyBody(request.body);
  const auto jid = *request.param("jid");
  checkJid(jid, "");
  std::lock_guard lock(mutex_);
  auto& chats = chats_[request.userId];
  const auto found = std::find(chats.begin(), chats.end(), jid);
  if (request.method == "PUT") {
    if (found != chats.end()) return Reply::ok();
    chats.push_back(jid);
  } else {
    if (found == chats.end()) throw Refusal(404, "no chat with " + jid);
    chats.erase(found);
  }
  std::string path(kChatListPath);
  path.append("/").append(jid);
  context_.push(Recipients::user(request.userId), path, request.method, {{"jid", jid}});
  return Reply::ok();
}

std::vector<std::string> ChatLists::chats(std::string_view userId) const {
  std::lock_guard lock(mutex_);
  const auto found = chats_.find(userId);
  return found == chats_.end() ? std::vector<std::string>{} : found->second;
}

void ChatLists::checkFixture(const json& part, const UserIds& users) {
  if (!part.is_object()) throw Refusal(400, "\"chats\" must be an object");
  for (const auto& [user, jids] : part.items()) {
    const auto where = "\"chats." + user + "\"";
    if (!users.contains(user)) throw Refusal(400, where + ": no user \"" + user + "\"");
    if (!jids.is_array()) throw Refusal(400, where + " must be a list");
    for (const auto& jid : jids) {
      if (!jid.is_string()) throw Refusal(400, where + " must hold JIDs");
      checkJid(jid.get<std::string>(), where + ": ");
    }
  }
}

void ChatLists::loadFixture(const json& part) {
  std::lock_guard lock(mutex_);
  for (const auto& [user, jids] : part.items()) {
    auto& chats = chats_[user];
    for (const auto& jid : jids) {
      if (std::find(chats.begin(), chats.end(), jid) == chats.end()) chats.push_back(jid);
    }
  }
}

}  // namespace kel::emulator
