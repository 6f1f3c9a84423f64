#pragma once

// The domains that every emulator serves, each with its own state and routes.

#include "emulator/HttpRouter.h"
#include "emulator/ResourceRouter.h"
#include "emulator/SessionStore.h"
#include "emulator/SignIn.h"
#include "emulator/domains/AddressBooks.h"
#include "emulator/domains/Alerts.h"
#include "emulator/domains/CallHistory.h"
#include "emulator/domains/ChatLists.h"
#include "emulator/domains/Domain.h"
#include "emulator/domains/Groups.h"
#include "emulator/domains/Meetings.h"
#include "emulator/domains/Presences.h"
#include "emulator/domains/UserContacts.h"

namespace kel::emulator {

struct Domains {
  Domains(SessionStore& store, SignIn& signIn, const PushEvent& push)
      : userContacts({store, signIn, push}),
        addressBooks(userContacts),
        presences({store, signIn, push}),
        groups({store, signIn, push}),
        meetings({store, signIn, push}),
        callHistory({store, signIn, push}, clock),
        alerts({store, signIn, push}, clock),
        chatLists({store, signIn, push}) {}

  void install(ResourceRouter& resources) {
    userContacts.install(resources);
    addressBooks.install(resources);
    presences.install(resources);
    groups.install(resources);
    meetings.install(resources);
    callHistory.install(resources);
    alerts.install(resources);
    chatLists.install(resources);
  }

  /// The operator's requests on plain HTTP (placing calls).
  void installControl(HttpRouter& http) { callHistory.installControl(http); }

  /// Declared first: the domains that keep time hold it.
  DomainClock clock;
  UserContacts userContacts;
  AddressBooks addressBooks;
  Presences presences;
  Groups groups;
  Meetings meetings;
  CallHistory callHistory;
  Alerts alerts;
  ChatLists chatLists;
};

}  // namespace kel::emulator
