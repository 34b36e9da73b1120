#include "tools/skerrowctl/CommandLine.h"

#include <sstream>

#include <gtest/gtest.h>

#include "tools/skerrowctl/Commands.h"
#include "tools/skerrowctl/ExitStatus.h"
#include "tools/skerrowctl/Json.h"

namespace {

using skerrowctl::CommandLine;
using skerrowctl::Json;

std::optional<CommandLine> parse(const std::vector<std::string>& argv, std::string* error) {
  return CommandLine::parse(argv, skerrowctl::commandTable(), error);
}

TEST(SkerrowctlCommandLineTest, GlobalOptionsComeBeforeTheCommandAndItsOwnAfter) {
  std::string error;
  const auto line = parse({"--json", "--user", "ann", "--max-errors", "3", "restore", "Documents/a.txt", "--version",
                           "2", "--to", "/tmp/x", "--overwrite"},
                          &error);
  ASSERT_TRUE(line) << error;
  EXPECT_TRUE(line->json);
  EXPECT_EQ(line->user, "ann");
  EXPECT_EQ(line->maximumErrors, 3u);
  EXPECT_STREQ(line->command->name, "restore");
  EXPECT_EQ(line->arguments, std::vector<std::string>{"Documents/a.txt"});
  EXPECT_EQ(line->value("--version"), "2");
  EXPECT_EQ(line->value("--to"), "/tmp/x");
  EXPECT_TRUE(line->has("--overwrite"));
}

TEST(SkerrowctlCommandLineTest, MistakesAreRefusedWithAReason) {
  std::string error;
  EXPECT_FALSE(parse({}, &error));
  EXPECT_EQ(error, "no command given");
  EXPECT_FALSE(parse({"explode"}, &error));
  EXPECT_EQ(error, "unknown command \"explode\"");
  // A command other tools call by another name, or a slip of a letter or two, is named.
  EXPECT_FALSE(parse({"status"}, &error));
  EXPECT_EQ(error, "unknown command \"status\" (did you mean \"list\"?)");
  EXPECT_FALSE(parse({"bakcup"}, &error));
  EXPECT_EQ(error, "unknown command \"bakcup\" (did you mean \"backup\"?)");
  EXPECT_FALSE(parse({"mout", "/tmp/x"}, &error));
  EXPECT_EQ(error, "unknown command \"mout\" (did you mean \"mount\"?)");
  EXPECT_FALSE(parse({"xyzzy"}, &error));
  EXPECT_EQ(error, "unknown command \"xyzzy\"");
  EXPECT_FALSE(parse({"versions"}, &error));
  EXPECT_EQ(error, "\"versions\" needs more arguments: versions PATH [--backup UID]");
  EXPECT_FALSE(parse({"cancel", "a", "b"}, &error));
  EXPECT_NE(error.find("b"), std::string::npos) << error;
  EXPECT_FALSE(parse({"list", "--overwrite"}, &error));
  EXPECT_NE(error.find("--overwrite"), std::string::npos) << error;
  EXPECT_FALSE(parse({"restore", "a", "--to"}, &error));
  EXPECT_NE(error.find("--to"), std::string::npos) << error;
  EXPECT_FALSE(parse({"--max-errors", "many", "list"}, &error));
  EXPECT_EQ(error, "--max-errors needs a whole number, not \"many\"");
  EXPECT_FALSE(parse({"--frobnicate", "list"}, &error));
  EXPECT_NE(error.find("--frobnicate"), std::string::npos) << error;
}

TEST(SkerrowctlCommandLineTest, GlobalOptionsMayFollowTheCommand) {
  std::string error;
  const auto line = parse({"list", "--json", "--user", "ann"}, &error);
  ASSERT_TRUE(line) << error;
  EXPECT_TRUE(line->json);
  EXPECT_EQ(line->user, "ann");
  EXPECT_STREQ(line->command->name, "list");
  const auto mixed = parse({"backup", "5E4B", "--max-errors", "7", "--tally"}, &error);
  ASSERT_TRUE(mixed) << error;
  EXPECT_EQ(mixed->maximumErrors, 7u);
  EXPECT_EQ(mixed->arguments, std::vector<std::string>{"5E4B"});
  EXPECT_TRUE(mixed->has("--tally"));
}

TEST(SkerrowctlCommandLineTest, TheEnginesOwnErrorLimitIsAskedUnlessToldOtherwise) {
  std::string error;
  const auto line = parse({"backup"}, &error);
  ASSERT_TRUE(line) << error;
  EXPECT_EQ(line->maximumErrors, 100u);
  const auto never = parse({"--max-errors", "0", "backup"}, &error);
  ASSERT_TRUE(never) << error;
  EXPECT_EQ(never->maximumErrors, 0u);
}

TEST(SkerrowctlCommandLineTest, AValueMayBeJoinedToItsOptionWithAnEqualsSign) {
  std::string error;
  const auto line = parse({"restore", "Documents", "--at=2025-01-31", "--to=/tmp/r"}, &error);
  ASSERT_TRUE(line) << error;
  EXPECT_EQ(line->value("--at"), "2025-01-31");
  EXPECT_EQ(line->value("--to"), "/tmp/r");
}

TEST(SkerrowctlCommandLineTest, MistakesWithJsonAreReportedAsJson) {
  std::ostringstream out, err;
  EXPECT_EQ(skerrowctl::run({"list", "--json", "--frobnicate"}, out, err), 2);
  EXPECT_EQ(err.str(), "");
  EXPECT_EQ(out.str().rfind("{\"error\":", 0), 0u) << out.str();
  EXPECT_NE(out.str().find("\"status\":2}"), std::string::npos) << out.str();
}

TEST(SkerrowctlCommandLineTest, HelpListsEveryExitStatus) {
  std::ostringstream out, err;
  EXPECT_EQ(skerrowctl::run({"--help"}, out, err), 0);
  for (const auto& status : skerrowctl::kExitStatusTexts)
    EXPECT_NE(out.str().find(status.meaning), std::string::npos) << status.status;
}

TEST(SkerrowctlCommandLineTest, DoubleDashEndsOptionsSoPathsMayStartWithDashes) {
  std::string error;
  const auto line = parse({"versions", "--", "--odd name"}, &error);
  ASSERT_TRUE(line) << error;
  EXPECT_EQ(line->arguments, std::vector<std::string>{"--odd name"});
}

TEST(SkerrowctlCommandLineTest, HelpNeedsNoEngineAndExplainsEveryCommand) {
  std::ostringstream out, err;
  EXPECT_EQ(skerrowctl::run({"--help"}, out, err), 0);
  for (const auto& entry : skerrowctl::commandTable())
    EXPECT_NE(out.str().find(std::string("  ") + entry.name + " "), std::string::npos) << entry.name;
  std::ostringstream one;
  EXPECT_EQ(skerrowctl::run({"restore", "--help"}, one, err), 0);
  EXPECT_NE(one.str().find("--overwrite"), std::string::npos);
  std::ostringstream bad;
  EXPECT_EQ(skerrowctl::run({"explode"}, out, bad), 2);
  EXPECT_NE(bad.str().find("unknown command"), std::string::npos);
}

TEST(SkerrowctlJsonTest, WritesEscapedStringsNumbersAndNestedValuesInOrder) {
  Json value = Json::object()
                   .set("name", "a \"quoted\"\\ line\nwith\ttabs\x01")
                   .set("count", int64_t(-3))
                   .set("ratio", 0.5)
                   .set("missing", Json())
                   .set("ok", true)
                   .set("list", Json::array().push(1).push("two"));
  EXPECT_EQ(value.dump(),
            "{\"name\":\"a \\\"quoted\\\"\\\\ line\\nwith\\ttabs\\u0001\",\"count\":-3,\"ratio\":0.5,"
            "\"missing\":null,\"ok\":true,\"list\":[1,\"two\"]}");
  EXPECT_EQ(Json(1.0 / 0.0).dump(), "null");
}

}  // namespace

namespace {

TEST(SkerrowctlVersionTest, VersionPrintsTheProjectVersionAndNothingElse) {
  std::ostringstream out, err;
  EXPECT_EQ(skerrowctl::run({"--version"}, out, err), 0);
  EXPECT_EQ(out.str(), std::string("skerrowctl ") + SKERROW_EXPECTED_VERSION + "\n");
  EXPECT_EQ(err.str(), "");
}

TEST(SkerrowctlVersionTest, VersionWinsOverACommandWithoutReachingTheEngine) {
  std::ostringstream out, err;
  // "list" would need the engine; --version answers before any bus is opened.
  EXPECT_EQ(skerrowctl::run({"--json", "--version", "list"}, out, err), 0);
  EXPECT_EQ(out.str(), std::string("skerrowctl ") + SKERROW_EXPECTED_VERSION + "\n");
}

TEST(SkerrowctlVersionTest, RestoresVersionOptionIsNotTheGlobalOne) {
  std::string error;
  const auto line = CommandLine::parse({"restore", "a.txt", "--version", "3"}, skerrowctl::commandTable(), &error);
  ASSERT_TRUE(line) << error;
  EXPECT_FALSE(line->version);
  EXPECT_EQ(line->value("--version"), "3");
}

TEST(SkerrowctlVersionTest, UsageListsVersion) {
  std::ostringstream out, err;
  EXPECT_EQ(skerrowctl::run({"--help"}, out, err), 0);
  EXPECT_NE(out.str().find("--version"), std::string::npos);
}

}  // namespace
