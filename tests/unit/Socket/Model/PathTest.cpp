#include "ServerClient/Socket/Model/PathRepresentable.h"
#include "ServerClient/Socket/Model/PathRule.h"
#include "ServerClient/Socket/Model/Pathname.h"

#include <gtest/gtest.h>

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

enum class NoTable { a };
static_assert(PathRepresentable<Path>);
static_assert(!PathRepresentable<NoTable>);
static_assert(!PathRepresentable<int>);
// Conversions work at compile time, so domain code can check its paths in static_asserts.
static_assert(pathFromRawValue<Path>("/usersGroup") == Path::groups);

TEST(PathRepresentable, ConvertsEveryCaseBothWaysAndRefusesOtherTexts) {
  const auto paths = allPaths<Path>();
  ASSERT_EQ(3u, paths.size());
  for (Path path : paths) EXPECT_EQ(path, pathFromRawValue<Path>(rawValue(path)));
  for (const char* other : {"/usersgroup", "/usersGroup/", ""}) {
    EXPECT_EQ(std::nullopt, pathFromRawValue<Path>(other)) << other;
  }
  EXPECT_EQ("", rawValue(static_cast<Path>(7)));  // a value cast from outside the enumeration
}

TEST(Pathname, AppliesTheRulesInOrderEachToThePreviousResult) {
  using R = PathRule;
  struct Case {
    std::string raw;
    std::vector<PathRule> rules;
    std::string expected;
  };
  const Case cases[] = {
      {"/g/:id/p", {}, "/g/:id/p"},
      {"/g/:id/p", {R::interpolation("7")}, "/g/7/p"},
      {"/g/:id/p", {R::append("7")}, "/g/:id/p/7"},
      {"/g/:id/p", {R::query("?a=1")}, "/g/:id/p?a=1"},
      {"caps", {R::append("u1")}, "caps/u1"},
      {"/g", {R::append("42"), R::query("?from=0")}, "/g/42?from=0"},
      {"/g", {R::append("a"), R::append("b")}, "/g/a/b"},
      // An appended ":id" is there for a later interpolation to fill, not for an earlier one.
      {"/g", {R::append(":id"), R::interpolation("5")}, "/g/5"},
      {"/g", {R::interpolation("5"), R::append(":id")}, "/g/:id"},
      // Interpolation replaces every placeholder as plain text and never searches its value.
      {"/g/:id/p", {R::interpolation("")}, "/g//p"},
      {"/:id/:id", {R::interpolation("a/b")}, "/a/b/a/b"},
      {"/:ID/x:idy", {R::interpolation("z")}, "/:ID/xzy"},
      {"/:id/:id", {R::interpolation(":id:id")}, "/:id:id/:id:id"},
      // An appended value is kept verbatim.
      {"/g", {R::append("/7")}, "/g//7"},
      {"/g", {R::append("")}, "/g/"},
      {"/g", {R::append("a b?c")}, "/g/a b?c"},
  };
  for (const auto& c : cases) EXPECT_EQ(c.expected, applyPathRules(c.raw, c.rules)) << c.expected;
  EXPECT_EQ("/usersGroup/7/participants",
            Pathname<Path>(Path::withId, {PathRule::interpolation("7")}).value());
}

}  // namespace
}  // namespace kel
