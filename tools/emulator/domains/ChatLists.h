#pragma once

// Chat lists: each user's one-to-one chats, by the peer's JID ("local@domain").
//
//   GET    /xmpp/individualChatList          {"chats": [jid, ...]} in the order added
//   PUT    /xmpp/individualChatList/<jid>    adds the chat; a chat already there stays where it
//                                            is, without an event
//   DELETE /xmpp/individualChatList/<jid>    removes it; 404 when it is not there
// The bodies are empty ([] or {}); anything else is 400.
//
// Events to the user's sockets, path "/xmpp/individualChatList/<jid>", body {"jid"}: "PUT" when
// a chat is added, "DELETE" when removed.

#include <map>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include <nlohmann/json.hpp>

#include "emulator/ResourceRouter.h"
#include "emulator/domains/Domain.h"

namespace kel::emulator {

class ChatLists {
 public:
  explicit ChatLists(DomainContext context);

  ChatLists(const ChatLists&) = delete;
  ChatLists& operator=(const ChatLists&) = delete;

  void install(ResourceRouter& resources);

  /// The user's chats, in the order added.
  std::vector<std::string> chats(std::string_view userId) const;

  /// The fixture's "chats": {"<user id>": [jid, ...]}.
  static void checkFixture(const nlohmann::json& part, const UserIds& users);
  void loadFixture(const nlohmann::json& part);

 private:
  static void checkJid(std::string_view jid, std::string_view where);
  Reply change(const ResourceRequest& request);

  DomainContext context_;
  mutable std::mutex mutex_;                                            // guards chats_
  std::map<std::string, std::vector<std::string>, std::less<>> chats_;  // by user id
};

}  // namespace kel::emulator
