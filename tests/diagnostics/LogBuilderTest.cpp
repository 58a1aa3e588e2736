#include "diagnostics/LogBuilder.h"

#include <gtest/gtest.h>

#include <string>
#include <thread>

#include "LogRecorder.h"
#include "diagnostics/ComponentLog.h"

namespace veranda::reachabilityCache {
namespace {

using commonLog::LogBuilder;
using test::LogLine;
using test::LogRecorder;

TEST(LogBuilderTest, LabelFollowsNameAndContextRules) {
  EXPECT_EQ(LogBuilder("ReachabilityUpdater", nullptr).str(), "[ReachabilityUpdater]");
  EXPECT_EQ(LogBuilder("checkReachability", "checkReachability").str(), "[checkReachability]");
  EXPECT_EQ(LogBuilder("checkReachability", "").str(), "[checkReachability]");
  EXPECT_EQ(LogBuilder("f", "ctx").str(), "[f] ctx");
  EXPECT_EQ(LogBuilder("operator()", "stateChangeCallback").str(), "[stateChangeCallback]");
  EXPECT_EQ(LogBuilder("operator()", nullptr).str(), "[]");
}

TEST(LogBuilderTest, FieldsFollowOneColonAndAreWrittenVerbatim) {
  const std::string line = LogBuilder("~ReachabilityCache", nullptr)
                               .d("event", "cacheDestroyed")
                               .d("cacheSize", 3U)
                               .d("odd", "a b=c %s %d")
                               .str();
  EXPECT_EQ(line, "[~ReachabilityCache]: event=cacheDestroyed cacheSize=3 odd=a b=c %s %d");
  // A line longer than the builder's own buffer is kept whole.
  const std::string details(3 * LogBuilder::INLINE_CAPACITY, 'x');
  LogBuilder longLine("f", nullptr);
  longLine.d("a", details.c_str()).d("b", details.c_str()).d("n", 7);
  EXPECT_EQ(longLine.str(), "[f]: a=" + details + " b=" + details + " n=7");
  EXPECT_STREQ(longLine.text(), longLine.str().c_str());
}

TEST(LogBuilderTest, IntegersAreWrittenWholeInDecimal) {
  EXPECT_EQ(LogBuilder("f", nullptr).d("a", -1).d("b", 4294967295U).str(),
            "[f]: a=-1 b=4294967295");
  EXPECT_EQ(LogBuilder("f", nullptr).d("a", static_cast<long long>(-9000000000LL)).str(),
            "[f]: a=-9000000000");
  EXPECT_EQ(LogBuilder("f", nullptr).d("a", static_cast<uint64_t>(18446744073709551615ULL)).str(),
            "[f]: a=18446744073709551615");
}

TEST(LogBuilderTest, ExtractsTheNameOfADecoratedSignature) {
  EXPECT_STREQ(LogBuilder::extractFunctionName(
                   "bool veranda::reachabilityCache::CacheCore::isEntityPresent(const "
                   "std::string&) const"),
               "isEntityPresent");
  EXPECT_STREQ(LogBuilder::extractFunctionName("void ns::Outer::f(std::function<void(int)>)"), "f");
  EXPECT_STREQ(LogBuilder::extractFunctionName("int g \t(int)"), "g");
  EXPECT_STREQ(LogBuilder::extractFunctionName("f<int>(x)"), "int>");
  EXPECT_STREQ(LogBuilder::extractFunctionName("~ReachabilityCache"), "~ReachabilityCache");
}

TEST(LogBuilderTest, KeepsTextWhoseParenthesesCannotBeResolved) {
  EXPECT_STREQ(LogBuilder::extractFunctionName("void f(int))"), "void f(int))");
  EXPECT_STREQ(LogBuilder::extractFunctionName(")abc"), ")abc");
  EXPECT_STREQ(LogBuilder::extractFunctionName("(int)"), "(int)");
  EXPECT_STREQ(LogBuilder::extractFunctionName("  (int)"), "  (int)");
  EXPECT_STREQ(LogBuilder::extractFunctionName("auto lambda::operator()() const"), "");
}

TEST(LogBuilderTest, CutsLongLabelsTo255Characters) {
  const std::string name(300, 'n');
  const std::string signature = "void " + name + "(int)";
  EXPECT_EQ(std::string(LogBuilder::extractFunctionName(signature.c_str())), name.substr(0, 255));
  // A bare name is used whole.
  EXPECT_EQ(std::string(LogBuilder::extractFunctionName(name.c_str())), name);
}

TEST(LogBuilderTest, EachThreadHasItsOwnLabelBuffer) {
  const char* mine = LogBuilder::extractFunctionName("void mine(int)");
  std::thread other(
      [] { EXPECT_STREQ(LogBuilder::extractFunctionName("void theirs()"), "theirs"); });
  other.join();
  EXPECT_STREQ(mine, "mine");
}

TEST(ComponentLogTest, EachComponentWritesUnderItsTagWithPercentSignsIntact) {
  test::LogCapture& recorder = LogRecorder::instance();
  recorder.clear();
  logFacade(LogPriority::INFO, LogBuilder("a", nullptr).d("v", "100%s"));
  logStore(LogPriority::DEBUG, LogBuilder("b", nullptr));
  logUpdater(LogPriority::WARN, LogBuilder("c", nullptr));
  logChecker(LogPriority::ERROR, LogBuilder("d", nullptr));
  const std::vector<LogLine> expected = {
      {4, test::FACADE_TAG, "[a]: v=100%s"},
      {3, test::STORE_TAG, "[b]"},
      {5, test::UPDATER_TAG, "[c]"},
      {6, test::CHECKER_TAG, "[d]"},
  };
  EXPECT_EQ(recorder.lines(), expected);
}

}  // namespace
}  // namespace veranda::reachabilityCache
