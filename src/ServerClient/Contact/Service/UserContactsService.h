#pragma once

#include "ServerClient/Contact/Model/Contact.h"
#include "ServerClient/rx/Single.h"

namespace kel {

/// The signed-in user's own contacts. Each operation succeeds once the server has accepted the
/// change, which it says with an empty answer.
class UserContactsService {
 public:
  virtual ~UserContactsService() = default;

  virtual rx::Single<rx::Unit> add(const Contact& contact) = 0;
  virtual rx::Single<rx::Unit> update(const Contact& contact) = 0;
  virtual rx::Single<rx::Unit> deleteContact(const Contact& contact) = 0;
};

}  // namespace kel
