// Message lines, levels, hooks, assertions and the whole-line lock.
#include <errno.h>

#include <regex>
#include <sstream>
#include <thread>
#include <vector>

#include "kz/error.h"
#include "kz/message.h"
#include "test_support.h"

namespace {

const std::string kStamp = "\\[[0-9]{4}/[0-9]{2}/[0-9]{2}-[0-9]{2}:[0-9]{2}:[0-9]{2}\\] ";
const auto kAbort = kztest::Aborted;

// Whether the whole text matches pattern, showing both when it does not.
testing::AssertionResult Matches(const std::string &text, const std::string &pattern) {
  if (std::regex_match(text, std::regex(pattern))) return testing::AssertionSuccess();
  return testing::AssertionFailure() << "text\n" << text << "\ndoes not match\n" << pattern;
}

TEST(MessageLines, LevelsStampsLocationsAndErrorSuffix) {
  kztest::CapturedStream output(0), errors(1);
  KZMessage(0, "zero %d", 0), KZMessage(1, ":colon kept at level %d", 1), KZMessage(2, "stamped");
  EXPECT_TRUE(Matches(output.Text(), "zero 0\r\n:colon kept at level 1\r\n" + kStamp + "stamped\r\n"));
  EXPECT_EQ(errors.Text(), "");
  int line = __LINE__ + 1;
  KZMessage(3, "went wrong: %I64u", static_cast<unsigned long long>(UINT64_MAX)), KZMessage(3, ":no location here");
  KZSetMessageContext_("C:\\src\\win\\file.c", 7, 3, 0), KZMessage_("a");
  KZSetMessageContext_("/usr/src/unix.c", 8, 3, 0), KZMessage_("b");
  KZSetLastError(ENOENT), errno = -1, KZMessageWithError(3, "open failed");
  const std::string start = kStamp + "kzlib: ", here = start + "\"message_test.cpp:";  // line starts
  const std::string want = here + std::to_string(line) + "\": went wrong: 18446744073709551615\r\n" + start +
                           "no location here\r\n" + start + "\"file.c:7\": a\r\n" + start + "\"unix.c:8\": b\r\n" +
                           here + "[0-9]+\": open failed: " + kztest::SystemErrorText(ENOENT) + "\r\n";
  EXPECT_TRUE(Matches(errors.Text(), want));
  KZErrorClear();
}

TEST(MessageLines, ProcessIdFollowsTheLocation) {
  // Turning the pid on cannot be undone: a child does it.
  EXPECT_EXIT((KZEnableLogPID(), KZMessage(3, "with pid"), exit(0)), testing::ExitedWithCode(0),
              "kzlib: \"message_test.cpp:" KZ_RE_DIGITS "\": \\[" KZ_RE_DIGITS "\\] with pid\r\n");
}

std::string g_seen;  // "file:line level withError text"
void RecordingHandler(const char *file, uint32_t line, int level, uint32_t error, const char *format, va_list args) {
  char text[256];
  vsnprintf(text, sizeof text, format, args);
  g_seen = std::string(file) + ":" + std::to_string(line) + " " + std::to_string(level) + " " + std::to_string(error) +
           " " + text;
}

TEST(MessageHandlers, CustomHandlerGetsTheContextAndNullRestoresTheDefault) {
  KZMessageHandler original = KZGetMessageHandler();
  EXPECT_EQ(KZSetMessageHandler(RecordingHandler), RecordingHandler);
  KZSetMessageContext_("where.c", 99, 2, 1), KZMessage_("value %d", 5);
  EXPECT_EQ(g_seen, "where.c:99 2 1 value 5");
  EXPECT_EQ(KZSetMessageHandler(nullptr), original);
}

TEST(MessageStreams, NullRestoresTheStandardStream) {
  for (auto [which, standard] : {std::pair<int, FILE *>{0, stdout}, {1, stderr}}) {
    {
      kztest::CapturedStream captured(which);
      EXPECT_EQ(KZGetMessageStream(which), captured.file());
    }
    EXPECT_EQ(KZGetMessageStream(which), standard);  // null restored it
  }
}

TEST(FatalLevelsDeathTest, LevelsFourAndFiveEndTheProcessEvenWhenTheHandlerReturns) {
  EXPECT_EXIT((KZSetAbort(kztest::AbortHookToStderr), KZErrorThrow(KZ_ERR_TIMEOUT, "inner cause"),
               KZErrorRethrow("while waiting"), KZMessageWithError(4, "giving up")),
              testing::ExitedWithCode(1),
              "kzlib: \"message_test.cpp:" KZ_RE_DIGITS
              "\": giving up: while waiting: inner cause\r\n"
              "\tThrown at .*TestBody\\(.*message_test.cpp:" KZ_RE_DIGITS
              "\\): inner cause\n"
              "\tat .*TestBody\\(.*message_test.cpp:" KZ_RE_DIGITS
              "\\): while waiting\n"
              "\n\n"  // the blank lines the stack printer and the fatal path end with
              "hook<message handler\\|kzlib/kzlib\\|1898>");
  EXPECT_EXIT(KZMessage(5, "fatal"), kAbort, "kzlib: \"message_test.cpp:" KZ_RE_DIGITS "\": fatal\r\n");
  EXPECT_EXIT((KZSetMessageHandler(RecordingHandler), KZMessage(4, "x")), testing::ExitedWithCode(1), "");
  EXPECT_EXIT((KZSetMessageHandler(RecordingHandler), KZMessage(5, "x")), kAbort, "");
}

TEST(AssertionsDeathTest, WrittenRawThenAbortAtAnyVerbosity) {
  EXPECT_EXIT(kzassert_("x == 1", "kzlib/demo", 12), kAbort, "^'x == 1' failed at kzlib/demo:12\n$");
  EXPECT_EXIT((KZSetAbort(kztest::AbortHookToStderr), kzassert_("x == 1", "f.c", 3)), kAbort,
              "'x == 1' failed at f.c:3\nhook<x == 1\\|");
  EXPECT_EXIT((KZAssertSetVerbosity(0), kzassert_("quiet?", "f", 1)), kAbort, "'quiet\\?' failed at f:1\n");
}

TEST(AssertionVerbosity, ZeroIsKeptAndAnyOtherValueReadsAsOne) {
  EXPECT_EQ((KZAssertSetVerbosity(0), KZAssertGetVerbosity()), 0);
  EXPECT_EQ((KZAssertSetVerbosity(7), KZAssertGetVerbosity()), 1);
}

TEST(ProcessState, TitleAndNameAreNotSupported) {
  uint32_t line = 0;
  EXPECT_EQ(KZSetProcessTitle("x"), 0);
  EXPECT_EQ(KZErrorCode(), KZ_ERROR_CODE(2, 6));
  EXPECT_STREQ(KZErrorMessage(), "not supported");
  EXPECT_STREQ(KZErrorLocation(&line), "kzlib/kzlib");
  EXPECT_EQ(line, 2263u);
  KZErrorClear();
  EXPECT_EQ(KZSetProcessName("worker"), 0);
  EXPECT_EQ(KZErrorCode(), KZ_ERROR_CODE(2, 6));
  KZErrorClear();
}

TEST(ProcessState, StateIsFormattedThenCleared) {
  EXPECT_EQ(KZState_("serving %s", "client"), 1);
  EXPECT_STREQ(reinterpret_cast<const char *>(KZState_(nullptr)), "");  // formatted, then cleared
  EXPECT_EQ(KZGetState(), nullptr);
}

TEST(ProcessExit, GoesToTheHookOrEndsTheProcess) {
  static std::vector<intptr_t> exitArgs;
  KZSetExit([](int status, intptr_t a, intptr_t b, intptr_t c) { exitArgs = {status, a, b, c}; });
  KZExit(3, 10, 20, 30), KZSetExit(nullptr);
  EXPECT_EQ(exitArgs, (std::vector<intptr_t>{3, 10, 20, 30}));
  EXPECT_EXIT(KZExit(7, 0, 0, 0), testing::ExitedWithCode(7), "");
}

TEST(MessageLock, LinesFromManyThreadsStayWhole) {
  kztest::CapturedStream errors(1);
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; t++)
    threads.emplace_back([t] {
      for (int i = 0; i < 300; i++) KZMessage(3, "thread %d line %d %s", t, i, "payload");
    });
  for (auto &thread : threads) thread.join();
  std::istringstream lines(errors.Text());
  std::regex whole(kStamp + "kzlib: \"message_test.cpp:[0-9]+\": thread ([0-9]) line ([0-9]+) payload\r");
  std::vector<int> next(4, 0);
  std::smatch match;
  for (std::string line; std::getline(lines, line);) {
    ASSERT_TRUE(std::regex_match(line, match, whole)) << line;
    EXPECT_EQ(std::stoi(match[2]), next[std::stoi(match[1])]++);  // each thread's lines in order
  }
  EXPECT_EQ(next, std::vector<int>(4, 300));
}

}  // namespace
