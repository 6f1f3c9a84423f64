#pragma once

// The domains that every emulator serves, each with its own state and routes.

#include "emulator/ResourceRouter.h"
#include "emulator/SessionStore.h"
#include "emulator/SignIn.h"
#include "emulator/domains/AddressBooks.h"
#include "emulator/domains/Domain.h"
#include "emulator/domains/Groups.h"
#include "emulator/domains/Presences.h"
#include "emulator/domains/UserContacts.h"

namespace kel::emulator {

struct Domains {
  Domains(SessionStore& store, SignIn& signIn, const PushEvent& push)
      : userContacts({store, signIn, push}),
        addressBooks(userContacts),
        presences({store, signIn, push}),
        groups({store, signIn, push}) {}

  void install(ResourceRouter& resources) {
    userContacts.install(resources);
    addressBooks.install(resources);
    presences.install(resources);
    groups.install(resources);
  }

  UserContacts userContacts;
  AddressBooks addressBooks;
  Presences presences;
  Groups groups;
};

}  // namespace kel::emulator
