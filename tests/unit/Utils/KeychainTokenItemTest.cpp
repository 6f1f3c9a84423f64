#include "ServerClient/Utils/KeychainTokenItem.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "ServerClient/platform/InMemoryKeychain.h"

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
KeychainError thrownBy(F&& f) {
  try {
    f();
  } catch (const KeychainError& error) {
    return error;
  }
  ADD_FAILURE() << "no KeychainError thrown";
  return KeychainError::noToken();
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

TEST_F(KeychainTokenItemTest, ReadNeedsTheTokenItemButNotAReadableURL) {
  put(kURLService, "https://a.example/");
  EXPECT_EQ(thrownBy([&] { item_.readToken(); }), KeychainError::noToken());

  put(kService, "token");
  EXPECT_EQ(item_.readToken().url, "https://a.example/");

  ASSERT_EQ(keychain_->deleteItems({kURLService, std::nullopt}), platform::errSecSuccess);
  EXPECT_EQ(item_.readToken(), (KeychainTokenItem::StoredToken{"token", ""}));

  put(kURLService, "\xff\xfe");
  EXPECT_EQ(item_.readToken(), (KeychainTokenItem::StoredToken{"token", ""}));

  keychain_->injectFailure(Call::copyMatching, kURLService, platform::errSecInteractionNotAllowed);
  EXPECT_EQ(item_.readToken(), (KeychainTokenItem::StoredToken{"token", ""}));
}

TEST_F(KeychainTokenItemTest, ReadRejectsNonUTF8TokenAndReportsOtherFailuresWithTheirStatus) {
  put(kService, "tok\xc0\xafn");
  EXPECT_EQ(thrownBy([&] { item_.readToken(); }), KeychainError::unexpectedTokenData());

  keychain_->injectFailure(Call::copyMatching, kService, platform::errSecNotAvailable);
  const KeychainError error = thrownBy([&] { item_.readToken(); });
  EXPECT_EQ(error.kind(), KeychainError::Kind::unhandledError);
  EXPECT_EQ(error.status(), platform::errSecNotAvailable);
}

TEST_F(KeychainTokenItemTest, FailedURLAddIsReportedAndTheTokenIsStillAdded) {
  keychain_->injectFailure(Call::add, kURLService, platform::errSecInteractionNotAllowed);

  EXPECT_EQ(thrownBy([&] { item_.saveToken("token", "https://a.example/"); }),
            KeychainError::unhandledError(platform::errSecInteractionNotAllowed));
  EXPECT_EQ(item_.readToken(), (KeychainTokenItem::StoredToken{"token", ""}));
}

TEST_F(KeychainTokenItemTest, FailedTokenAddLeavesTheNewURLItemInPlace) {
  item_.saveToken("old", "https://old.example/");
  keychain_->injectFailure(Call::add, kService, platform::errSecNotAvailable);

  EXPECT_EQ(thrownBy([&] { item_.saveToken("new", "https://new.example/"); }),
            KeychainError::unhandledError(platform::errSecNotAvailable));
  EXPECT_EQ(thrownBy([&] { item_.readToken(); }), KeychainError::noToken());
  EXPECT_EQ(keychain_->copyMatching({kURLService, std::nullopt}).data, "https://new.example/");
}

TEST_F(KeychainTokenItemTest, WhenBothAddsFailTheURLStatusWins) {
  keychain_->injectFailure(Call::add, kURLService, platform::errSecInteractionNotAllowed);
  keychain_->injectFailure(Call::add, kService, platform::errSecNotAvailable);

  EXPECT_EQ(thrownBy([&] { item_.saveToken("token", "url"); }),
            KeychainError::unhandledError(platform::errSecInteractionNotAllowed));
  EXPECT_EQ(keychain_->callCount(Call::add), 2);
}

TEST_F(KeychainTokenItemTest, SaveSwallowsAFailedDeleteAndReportsTheAddThatItCaused) {
  item_.saveToken("old", "url");
  keychain_->injectFailure(Call::deleteItems, kService, platform::errSecNotAvailable);

  // The old token item could not be removed, so adding the new one collides with it.
  EXPECT_EQ(thrownBy([&] { item_.saveToken("new", "url"); }),
            KeychainError::unhandledError(platform::errSecDuplicateItem));
  EXPECT_EQ(item_.readToken().token, "old");
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

TEST_F(KeychainTokenItemTest, GroupedPairIsSeparateButAnUngroupedDeleteRemovesEveryGroup) {
  item_.saveToken("default", "https://default.example/");
  const KeychainTokenItem shared(kService, keychainAccessGroup("TEAM"), keychain_);
  shared.saveToken("shared", "https://shared.example/");

  EXPECT_EQ(shared.readToken().token, "shared");
  EXPECT_EQ(item_.readToken().token, "default");
  EXPECT_EQ(thrownBy([&] { KeychainTokenItem(kService, "OTHER.group", keychain_).readToken(); }),
            KeychainError::noToken());

  item_.deleteItem();
  EXPECT_EQ(thrownBy([&] { shared.readToken(); }), KeychainError::noToken());
  EXPECT_TRUE(keychain_->items().empty());
}

}  // namespace
}  // namespace kel
