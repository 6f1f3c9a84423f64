#include "ServerClient/Utils/KeychainTokenItem.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <optional>
#include <utility>

#include "ServerClient/platform/InMemoryKeychain.h"
#include "support/Thrown.h"

namespace kel {
namespace {

using platform::InMemoryKeychain;
using platform::KeychainItem;
using Call = InMemoryKeychain::Call;
using KeychainError = KeychainTokenItem::KeychainError;
using ::testing::ElementsAre;
using ::testing::Field;

constexpr const char* kService = "io.example.test";
constexpr const char* kURLService = "io.example.test.serverURL";

class KeychainTokenItemTest : public ::testing::Test {
 protected:
  std::shared_ptr<InMemoryKeychain> keychain_ = std::make_shared<InMemoryKeychain>();
  KeychainTokenItem item_{kService, std::nullopt, keychain_};

  void put(const char* service, std::string data) {
    ASSERT_EQ(keychain_->add(KeychainItem{service, std::nullopt, std::move(data)}),
              platform::errSecSuccess);
  }
};

template <class F>
std::optional<KeychainError> thrownBy(F&& f) {
  return test::thrown<KeychainError>(std::forward<F>(f));
}

TEST(KeychainAccessGroupTest, TeamPrefixesTheSharedSuffixAndNoTeamMeansDefaultGroup) {
  EXPECT_EQ(keychainAccessGroup("AB12CD34EF"), "AB12CD34EF.io.kelclient.keychain");
  EXPECT_EQ(keychainAccessGroup(""), std::nullopt);
}

TEST_F(KeychainTokenItemTest, SavingTwiceKeepsOnePairWithTheLatestValues) {
  item_.saveToken("first", "https://a.example/");
  item_.saveToken("second", "https://b.example/");

  EXPECT_EQ(item_.readToken(), (KeychainTokenItem::StoredToken{"second", "https://b.example/"}));
  EXPECT_THAT(keychain_->items(), ElementsAre(Field(&KeychainItem::service, kService),
                                              Field(&KeychainItem::service, kURLService)));
}

TEST_F(KeychainTokenItemTest, ReadNeedsAUTF8TokenButNotAReadableURLAndReportsOtherFailures) {
  put(kURLService, "https://a.example/");
  EXPECT_EQ(thrownBy([&] { item_.readToken(); }), KeychainError::noToken());

  put(kService, "token");
  EXPECT_EQ(item_.readToken().url, "https://a.example/");

  ASSERT_EQ(keychain_->deleteItems({kURLService, std::nullopt}), platform::errSecSuccess);
  EXPECT_EQ(item_.readToken(), (KeychainTokenItem::StoredToken{"token", ""}));

  keychain_->injectFailure(Call::copyMatching, kURLService, platform::errSecInteractionNotAllowed);
  EXPECT_EQ(item_.readToken(), (KeychainTokenItem::StoredToken{"token", ""}));

  // A token that is not UTF-8 is refused; any other failure is reported with its status.
  item_.deleteItem();
  put(kService, "tok\xc0\xafn");
  EXPECT_EQ(thrownBy([&] { item_.readToken(); }), KeychainError::unexpectedTokenData());

  keychain_->injectFailure(Call::copyMatching, kService, platform::errSecNotAvailable);
  const KeychainError error = thrownBy([&] { item_.readToken(); }).value();
  EXPECT_EQ(error.kind(), KeychainError::Kind::unhandledError);
  EXPECT_EQ(error.status(), platform::errSecNotAvailable);
}

TEST_F(KeychainTokenItemTest, AFailedSaveReportsTheFirstFailedAddAndRollsNothingBack) {
  using Stored = KeychainTokenItem::StoredToken;
  struct Case {
    std::vector<std::pair<Call, const char*>> failing;  // with the status below
    platform::OSStatus failure;
    platform::OSStatus reported;
    std::optional<Stored> afterwards;  // nothing: no token to read
  };
  const std::vector<Case> cases = {
      // The token is added all the same; the URL reads as empty.
      {{{Call::add, kURLService}},
       platform::errSecNotAvailable,
       platform::errSecNotAvailable,
       Stored{"new", ""}},
      // The new URL item stays without a token.
      {{{Call::add, kService}},
       platform::errSecNotAvailable,
       platform::errSecNotAvailable,
       std::nullopt},
      // The old token could not be removed, so adding the new one collides with it.
      {{{Call::deleteItems, kService}},
       platform::errSecNotAvailable,
       platform::errSecDuplicateItem,
       Stored{"old", "https://new.example/"}},
  };
  for (const auto& [failing, failure, reported, afterwards] : cases) {
    SCOPED_TRACE(failing.size() * 10 + static_cast<std::size_t>(failing.front().first));
    keychain_->clearFailures();
    item_.deleteItem();
    item_.saveToken("old", "https://old.example/");
    for (const auto& [call, service] : failing) keychain_->injectFailure(call, service, failure);
    const int adds = keychain_->callCount(Call::add);
    EXPECT_EQ(thrownBy([&] { item_.saveToken("new", "https://new.example/"); }),
              KeychainError::unhandledError(reported));
    EXPECT_EQ(keychain_->callCount(Call::add), adds + 2);
    keychain_->clearFailures();
    if (afterwards) {
      EXPECT_EQ(item_.readToken(), *afterwards);
    } else {
      EXPECT_EQ(thrownBy([&] { item_.readToken(); }), KeychainError::noToken());
    }
  }
}

TEST_F(KeychainTokenItemTest, DeleteSucceedsOnEmptyKeychainIgnoresURLFailureReportsTokenFailure) {
  item_.deleteItem();

  item_.saveToken("token", "url");
  keychain_->injectFailure(Call::deleteItems, kURLService, platform::errSecNotAvailable);
  item_.deleteItem();
  EXPECT_EQ(thrownBy([&] { item_.readToken(); }), KeychainError::noToken());

  keychain_->clearFailures();
  item_.saveToken("token", "url");
  keychain_->injectFailure(Call::deleteItems, kService, platform::errSecInteractionNotAllowed);
  EXPECT_EQ(thrownBy([&] { item_.deleteItem(); }),
            KeychainError::unhandledError(platform::errSecInteractionNotAllowed));
}

}  // namespace
}  // namespace kel
