#include "ServerClient/Socket/Model/PathRepresentable.h"
#include "ServerClient/Socket/Model/PathRule.h"
#include "ServerClient/Socket/Model/Pathname.h"

#include <gtest/gtest.h>

#include <unordered_set>

namespace kel {
namespace {

class GroupService {
 public:
  enum class Path { groups, withId, participations };
  friend constexpr auto pathTable(Path) {
    return makePathTable<Path>({
        {Path::groups, "/usersGroup"},
        {Path::withId, "/usersGroup/:id/participants"},
        {Path::participations, "capabilities"},
    });
  }
};
using Path = GroupService::Path;

// A path enumeration at namespace scope declares its table as a plain function.
enum class LoosePath { only };
[[maybe_unused]] constexpr auto pathTable(LoosePath) {
  return makePathTable<LoosePath>({{LoosePath::only, "/x"}});
}

enum class NoTable { a };
enum Unscoped { unscopedA };

static_assert(PathRepresentable<Path>);
static_assert(PathRepresentable<LoosePath>);
static_assert(!PathRepresentable<NoTable>);
static_assert(!PathRepresentable<Unscoped>);
static_assert(!PathRepresentable<int>);
// Conversions work at compile time, so domain code can check its paths in static_asserts.
static_assert(rawValue(Path::withId) == "/usersGroup/:id/participants");
static_assert(pathFromRawValue<Path>("/usersGroup") == Path::groups);

TEST(PathRepresentable, ConvertsEveryCaseBothWaysAndRefusesOtherTexts) {
  const auto paths = allPaths<Path>();
  ASSERT_EQ(3u, paths.size());
  EXPECT_EQ(Path::participations, paths[2]);
  for (Path path : paths) EXPECT_EQ(path, pathFromRawValue<Path>(rawValue(path)));
  EXPECT_EQ(std::nullopt, pathFromRawValue<Path>("/usersgroup"));  // exact, case-sensitive
  EXPECT_EQ(std::nullopt, pathFromRawValue<Path>("/usersGroup/"));
  EXPECT_EQ(std::nullopt, pathFromRawValue<Path>(""));
  EXPECT_EQ("", rawValue(static_cast<Path>(7)));  // a value cast from outside the enumeration
  std::unordered_set<Path> set(paths.begin(), paths.end());
  EXPECT_EQ(3u, set.size());
}

std::string pathValue(Path path, std::vector<PathRule> rules) {
  return Pathname<Path>(path, std::move(rules)).value();
}

TEST(Pathname, AppliesEachRuleKindToTheRawPath) {
  EXPECT_EQ("/usersGroup/:id/participants", Pathname<Path>(Path::withId).value());
  EXPECT_EQ("/usersGroup/7/participants", pathValue(Path::withId, {PathRule::interpolation("7")}));
  EXPECT_EQ("/usersGroup/:id/participants/7", pathValue(Path::withId, {PathRule::append("7")}));
  EXPECT_EQ("/usersGroup/:id/participants?a=1", pathValue(Path::withId, {PathRule::query("?a=1")}));
  EXPECT_EQ("capabilities/u1", pathValue(Path::participations, {PathRule::append("u1")}));
}

TEST(Pathname, AppliesRulesInOrderEachToThePreviousResult) {
  EXPECT_EQ("/usersGroup/42?from=0",
            pathValue(Path::groups, {PathRule::append("42"), PathRule::query("?from=0")}));
  EXPECT_EQ("/usersGroup/a/b",
            pathValue(Path::groups, {PathRule::append("a"), PathRule::append("b")}));
  // An appended ":id" is there for a later interpolation to fill, but not for an earlier one.
  EXPECT_EQ("/usersGroup/5",
            pathValue(Path::groups, {PathRule::append(":id"), PathRule::interpolation("5")}));
  EXPECT_EQ("/usersGroup/:id",
            pathValue(Path::groups, {PathRule::interpolation("5"), PathRule::append(":id")}));
}

TEST(Pathname, InterpolationIsPlainTextReplacementOfEveryPlaceholder) {
  EXPECT_EQ("/usersGroup//participants", pathValue(Path::withId, {PathRule::interpolation("")}));
  EXPECT_EQ("/a/b/a/b", applyPathRules("/:id/:id", std::vector{PathRule::interpolation("a/b")}));
  EXPECT_EQ("/:ID/x:idy", applyPathRules("/:ID/x:idy", {}));
  EXPECT_EQ("/:ID/xzy", applyPathRules("/:ID/x:idy", std::vector{PathRule::interpolation("z")}));
  // The inserted value is not searched again, so a value holding ":id" cannot loop.
  EXPECT_EQ("/:id:id/:id:id",
            applyPathRules("/:id/:id", std::vector{PathRule::interpolation(":id:id")}));
}

TEST(Pathname, AppendKeepsTheValueVerbatimEvenWithALeadingSlash) {
  EXPECT_EQ("/usersGroup//7", pathValue(Path::groups, {PathRule::append("/7")}));
  EXPECT_EQ("/usersGroup/", pathValue(Path::groups, {PathRule::append("")}));
  EXPECT_EQ("/usersGroup/a b?c", pathValue(Path::groups, {PathRule::append("a b?c")}));
}

}  // namespace
}  // namespace kel
