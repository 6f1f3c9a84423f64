#pragma once

#include <optional>
#include <string>
#include <vector>

#include "ServerClient/AddressBooks/Model/AddressBookDTO.h"
#include "ServerClient/rx/Single.h"

namespace kel {

/// The address books the user can see, by type ("contacts", "static", "domain", ...; the wire
/// texts of AddressBookType).
///
/// Each operation sends one request when its single is subscribed (again at every further
/// subscription) and never retries. The result arrives on the socket client's thread, which
/// must not be blocked: move heavy work or user-interface updates elsewhere with observeOn. A
/// failure found before sending arrives at once on the subscribing thread. Errors, all SDKError:
/// - ConnectionError `noSocketClient`: not signed in, or the socket is not authenticated;
///   nothing is sent;
/// - ConnectionError `timeout` (code -1): no answer within 20 s;
/// - ConnectionError mapped from the server's error code (ConnectionError::mapToOvError);
/// - GenericError `decoding`: an answer without an "addressBooks" list, or a book that does not
///   decode (there is no partial result);
/// - GenericError `underlying`: the socket was stopped (sign-out) while the request was pending;
///   this one arrives on the thread that stopped it.
///
/// Disposing the subscription before the answer forgets the request: its answer is dropped.
/// Every member may be called from any thread.
class AddressBooksService {
 public:
  /// Destroying a service does not end the requests already made through it.
  virtual ~AddressBooksService() = default;

  /// The books of those types, in the server's order. A type named twice is asked for once; no
  /// type at all sends no query.
  virtual rx::Single<std::vector<AddressBookDTO>> addressBooks(
      const std::vector<std::string>& types) = 0;
  /// The first contact, in those books, that stands for the server user `userId`; nothing when
  /// none does.
  virtual rx::Single<std::optional<Contact>> contact(const std::vector<std::string>& types,
                                                     const std::string& userId) = 0;
};

/// Address books with an in-memory cache that the application keeps in step with the contact
/// events (AddressBooksEventHandler) through updateCache and deleteCache. Answers served from
/// the cache arrive at once on the subscribing thread; the rest is as for AddressBooksService.
class CacheAddressBooksService : public virtual AddressBooksService {
 public:
  using AddressBooksService::addressBooks;

  /// With `fromCache` and a cache holding any book: the cached books of those types, without a
  /// request, in no particular order; an empty list when none of the cached books has one of
  /// them (the server is not asked then). Books made by updateCache from an event hold only the
  /// contacts of the events seen. Otherwise the server's answer, each book of it cached on the
  /// way (replacing the cached one).
  virtual rx::Single<std::vector<AddressBookDTO>> addressBooks(
      const std::vector<std::string>& types, bool fromCache) = 0;
  /// Stores a book with an id and a type under its id, replacing the one cached there; a book
  /// lacking either is not stored. Returns the book unchanged.
  virtual AddressBookDTO updateCache(const AddressBookDTO& addressBook) = 0;
  /// For a new or changed contact (AddressBooksEventHandler::newContact, contactUpdated): puts
  /// the event's contact into its cached book, replacing the contact with the same id or
  /// appended. A book not cached yet is created with that one contact and no name; a cached book
  /// without a contact list is left alone; an event without book id, type or contact changes
  /// nothing. Returns the event.
  virtual AddressBookSocketDTO updateCache(const AddressBookSocketDTO& event) = 0;
  /// For a removed contact (AddressBooksEventHandler::contactDeleted): removes the contact with
  /// the event contact's id from the cached book; nothing happens when the event lacks the book
  /// id or the contact, or the book is not cached. Returns the event.
  virtual AddressBookSocketDTO deleteCache(const AddressBookSocketDTO& event) = 0;
};

}  // namespace kel
