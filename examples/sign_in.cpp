// Signing in once, then restoring the session in every later run.
//
//   sign_in KEL_URL SOCKET_URL SIGN_IN_TOKEN   signs in; the session goes to the keychain
//   sign_in KEL_URL SOCKET_URL                 restores the stored session
//   sign_in KEL_URL SOCKET_URL --logout        restores it, then ends it on the server
//
// The session token lives in the Secret Service under the application's team id, and the
// "can restore" flag in the application's own settings file, so a second run of the program (or
// of another program with the same team id) finds it.

#include <cstdio>
#include <exception>
#include <string>

#include "Await.h"
#include "ServerClient/Client/KelServer.h"

int main(int argc, char** argv) {
  if (argc < 3 || argc > 4) {
    std::fprintf(stderr, "usage: sign_in KEL_URL SOCKET_URL [SIGN_IN_TOKEN | --logout]\n");
    return 2;
  }
  const std::string option = argc == 4 ? argv[3] : "";
  try {
    auto server = kel::KelServer::create(example::url(argv[1]), example::url(argv[2]), "1.0",
                                         "example.sign-in");
    kel::AuthenticationData session;
    if (!option.empty() && option != "--logout") {
      session = example::await(server->connect(option), "sign-in");
      std::printf("signed in\n");
    } else if (server->canRestoreSession()) {
      // Tries again for about a minute while the server cannot be reached; a refused session
      // (signed out elsewhere, expired) ends at once with an AuthError.
      session = example::await(server->restoreSession(false), "restore", std::chrono::seconds(90));
      std::printf("restored\n");
    } else {
      std::fprintf(stderr, "no stored session: sign in first\n");
      return 1;
    }
    std::printf("user %s (%s), session %s\n", session.user.userId.c_str(),
                session.user.kelUri().c_str(), session.session.sessionID.c_str());

    if (option == "--logout") {
      // Ends the session on the server and forgets it here.
      example::await(server->logout("example-device"), "logout");
      std::printf("logged out\n");
    } else {
      // Closes the socket as an application going to the background does, keeping the session
      // for the next run.
      server->suspend();
    }
    return 0;
  } catch (const std::exception& error) {
    std::fprintf(stderr, "failed: %s\n", error.what());
    return 1;
  }
}
