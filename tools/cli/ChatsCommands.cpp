// `kel chats`: the user's list of one-to-one chats, each named by the peer's JID.

#include <nlohmann/json.hpp>

#include "ServerClient/XMPP/Service/XMPPService.h"
#include "cli/CommandLine.h"
#include "cli/Output.h"
#include "cli/Runner.h"

namespace kel::cli {

namespace {

XMPPService& chats(Runner& runner) {
  runner.restore();
  return *runner.server().xmppService();
}

/// The JID is a path segment of the request: "local@domain", nothing that would change the path.
void checkJid(const Arguments& arguments) {
  const auto& jid = arguments.operands.front();
  const auto at = jid.find('@');
  if (at == 0 || at == std::string::npos || at + 1 == jid.size() ||
      jid.find_first_of("/?#% ") != std::string::npos) {
    throw UsageError{"expected a JID local@domain, got \"" + jid + "\""};
  }
}

nlohmann::json list(Runner& runner, const Arguments&) {
  const auto jids = runner.await("chat list", chats(runner).oneToOneChatList());
  for (const auto& jid : jids) runner.human(jid);
  if (jids.empty()) runner.human("no chats");
  return {{"chats", jids}};
}

nlohmann::json add(Runner& runner, const Arguments& arguments) {
  const auto& jid = arguments.operands.front();
  auto& service = chats(runner);
  runner.await("add chat " + jid, service.addOneToOneChat(jid));
  runner.human("chat with " + jid + " in the list");
  return {{"jid", jid}};
}

nlohmann::json remove(Runner& runner, const Arguments& arguments) {
  const auto& jid = arguments.operands.front();
  auto& service = chats(runner);
  runner.await("remove chat " + jid, service.deleteOneToOneChat(jid));
  runner.human("chat with " + jid + " removed from the list");
  return {{"jid", jid}};
}

}  // namespace

const CommandGroup& chatsCommands() {
  static const CommandGroup group{
      "Chat list",
      {
          {.words = {"chats", "list"}, .summary = "your one-to-one chats' JIDs", .run = list},
          {.words = {"chats", "add"},
           .operands = "JID",
           .minOperands = 1,
           .maxOperands = 1,
           .summary = "add the chat with JID to your list",
           .check = checkJid,
           .run = add},
          {.words = {"chats", "remove"},
           .operands = "JID",
           .minOperands = 1,
           .maxOperands = 1,
           .summary = "remove the chat with JID from your list",
           .check = checkJid,
           .run = remove},
      }};
  return group;
}

}  // namespace kel::cli
