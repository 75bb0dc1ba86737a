// Message lines, levels, hooks, assertions and the whole-line lock.
#include <errno.h>
#include <signal.h>
#include <string.h>
#include <unistd.h>

#include <regex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "kz/error.h"
#include "kz/format.h"
#include "kz/message.h"
#include "test_support.h"

namespace {

const char *kStamp = "\\[[0-9]{4}/[0-9]{2}/[0-9]{2}-[0-9]{2}:[0-9]{2}:[0-9]{2}\\] ";

bool Matches(const std::string &text, const std::string &pattern) {
  return std::regex_match(text, std::regex(pattern));
}

TEST(MessageLines, PlainLevelsGoToTheOutputStream) {
  kztest::CapturedStream output(0);
  kztest::CapturedStream errors(1);
  KZMessage(0, "zero %d", 0);
  KZMessage(1, ":colon kept at level %d", 1);
  EXPECT_EQ(output.Text(), "zero 0\r\n:colon kept at level 1\r\n");
  EXPECT_EQ(errors.Text(), "");
}

TEST(MessageLines, LevelTwoCarriesATimeStamp) {
  kztest::CapturedStream output(0);
  KZMessage(2, "stamped %s", "text");
  EXPECT_TRUE(Matches(output.Text(), std::string(kStamp) + "stamped text\r\n")) << output.Text();
}

TEST(MessageLines, LevelThreeNamesProgramAndLocation) {
  kztest::CapturedStream errors(1);
  int line = __LINE__ + 1;
  KZMessage(3, "went wrong: %I64u", static_cast<unsigned long long>(18446744073709551615ull));
  EXPECT_EQ(errors.Text().substr(22),
            "kzlib: \"message_test.cpp:" + std::to_string(line) + "\": went wrong: 18446744073709551615\r\n");
  EXPECT_TRUE(Matches(errors.Text(), std::string(kStamp) + "[\\s\\S]*")) << errors.Text();
}

TEST(MessageLines, LeadingColonDropsTheLocationFromLevelThree) {
  kztest::CapturedStream errors(1);
  KZMessage(3, ":no location here");
  EXPECT_TRUE(Matches(errors.Text(), std::string(kStamp) + "kzlib: no location here\r\n")) << errors.Text();
}

TEST(MessageLines, BaseNameOfEitherSeparator) {
  kztest::CapturedStream errors(1);
  KZSetMessageContext_("C:\\src\\win\\file.c", 7, 3, 0);
  KZMessage_("a");
  KZSetMessageContext_("/usr/src/unix.c", 8, 3, 0);
  KZMessage_("b");
  std::string text = errors.Text();
  EXPECT_NE(text.find("kzlib: \"file.c:7\": a\r\n"), std::string::npos) << text;
  EXPECT_NE(text.find("kzlib: \"unix.c:8\": b\r\n"), std::string::npos) << text;
}

TEST(MessageLines, WithErrorAppendsTheCurrentMessage) {
  kztest::CapturedStream errors(1);
  KZSetLastError(ENOENT);
  errno = -1;
  KZMessageWithError(3, "open failed");
  EXPECT_NE(errors.Text().find("open failed: No such file or directory\r\n"), std::string::npos) << errors.Text();
  EXPECT_EQ(errno, -2);  // recorded on the way
  KZErrorClear();
}

TEST(MessageLines, ProcessIdFollowsTheLocation) {
  // Turning the process id on cannot be undone: check it in a child.
  EXPECT_EXIT(
      {
        KZEnableLogPID();
        KZMessage(3, "with pid");
        KZMessage(1, "plain");
        fflush(stdout);
        exit(0);
      },
      testing::ExitedWithCode(0),
      "kzlib: \"message_test.cpp:[0-9]+\": \\[[0-9]+\\] with pid\r\n");
}

TEST(MessageStreams, NullRestoresTheDefaults) {
  FILE *file = tmpfile();
  KZSetMessageStream(1, file);
  EXPECT_EQ(KZGetMessageStream(1), file);
  KZSetMessageStream(1, nullptr);
  EXPECT_EQ(KZGetMessageStream(1), stderr);
  KZSetMessageStream(0, file);
  EXPECT_EQ(KZGetMessageStream(0), file);
  KZSetMessageStream(0, nullptr);
  EXPECT_EQ(KZGetMessageStream(0), stdout);
  fclose(file);
}

struct Seen {
  std::string file, text;
  uint32_t line = 0;
  int level = -1;
  uint32_t withError = 9;
};
Seen g_seen;

void RecordingHandler(const char *file, uint32_t line, int level, uint32_t withError, const char *format,
                      va_list args) {
  g_seen.file = file;
  g_seen.line = line;
  g_seen.level = level;
  g_seen.withError = withError;
  char text[256];
  vsnprintf(text, sizeof text, format, args);
  g_seen.text = text;
}

TEST(MessageHandlers, CustomHandlerGetsTheContext) {
  KZMessageHandler original = KZGetMessageHandler();
  ASSERT_NE(original, nullptr);
  EXPECT_EQ(KZSetMessageHandler(RecordingHandler), RecordingHandler);
  KZSetMessageContext_("where.c", 99, 2, 1);
  KZMessage_("value %d", 5);
  EXPECT_EQ(g_seen.file, "where.c");
  EXPECT_EQ(g_seen.line, 99u);
  EXPECT_EQ(g_seen.level, 2);
  EXPECT_EQ(g_seen.withError, 1u);
  EXPECT_EQ(g_seen.text, "value 5");
  EXPECT_EQ(KZSetMessageHandler(nullptr), original);
  EXPECT_EQ(KZGetMessageHandler(), original);
}

TEST(FatalLevelsDeathTest, LevelFourPrintsTheStackAndExitsWithOne) {
  EXPECT_EXIT(
      {
        KZSetAbort(kztest::AbortHookToStderr);
        KZErrorThrow(KZ_ERR_TIMEOUT, "inner cause");
        KZErrorRethrow("while waiting");
        KZMessageWithError(4, "giving up");
      },
      testing::ExitedWithCode(1),
      "kzlib: \"message_test.cpp:[0-9]+\": giving up: while waiting: inner cause\r\n"
      "\tThrown at .*TestBody\\(.*message_test.cpp:[0-9]+\\): inner cause\n"
      "\tat .*TestBody\\(.*message_test.cpp:[0-9]+\\): while waiting\n"
      ".*hook<message handler\\|kzlib/kzlib\\|1898>");
}

TEST(FatalLevelsDeathTest, LevelFiveAborts) {
  EXPECT_EXIT(KZMessage(5, "fatal"), testing::KilledBySignal(SIGABRT), "kzlib: \"message_test.cpp:[0-9]+\": fatal\r\n");
}

TEST(FatalLevelsDeathTest, FatalLevelsEndEvenWhenTheHandlerReturns) {
  EXPECT_EXIT(
      {
        KZSetMessageHandler(RecordingHandler);
        KZMessage(4, "x");
      },
      testing::ExitedWithCode(1), "");
  EXPECT_EXIT(
      {
        KZSetMessageHandler(RecordingHandler);
        KZMessage(5, "x");
      },
      testing::KilledBySignal(SIGABRT), "");
}

TEST(AssertionsDeathTest, WrittenRawThenAbort) {
  EXPECT_EXIT(kzassert_("x == 1", "kzlib/demo", 12), testing::KilledBySignal(SIGABRT), "^'x == 1' failed at kzlib/demo:12\n$");
  EXPECT_EXIT(
      {
        KZSetAbort(kztest::AbortHookToStderr);
        int x = 2;
        kzassert(x == 1);
      },
      testing::KilledBySignal(SIGABRT), "'x == 1' failed at .*message_test.cpp:[0-9]+\nhook<x == 1\\|");
  // The assertion verbosity does not change this path.
  EXPECT_EXIT(
      {
        KZAssertSetVerbosity(0);
        kzassert_("quiet?", "f", 1);
      },
      testing::KilledBySignal(SIGABRT), "'quiet\\?' failed at f:1\n");
}

TEST(Verbosity, SetAndGet) {
  KZAssertSetVerbosity(1);
  EXPECT_EQ(KZAssertGetVerbosity(), 1);
  KZAssertSetVerbosity(0);
  EXPECT_EQ(KZAssertGetVerbosity(), 0);
  KZAssertSetVerbosity(7);
  EXPECT_EQ(KZAssertGetVerbosity(), 1);
}

TEST(ProcessTitle, NotSupported) {
  EXPECT_EQ(KZSetProcessTitle("x"), 0);
  EXPECT_EQ(KZErrorCode(), KZ_ERROR_CODE(2, 6));
  EXPECT_STREQ(KZErrorMessage(), "not supported");
  uint32_t line = 0;
  EXPECT_STREQ(KZErrorLocation(&line), "kzlib/kzlib");
  EXPECT_EQ(line, 2263u);
  KZErrorClear();
  EXPECT_EQ(KZSetProcessName("worker"), 0);
  EXPECT_EQ(KZErrorCode(), KZ_ERROR_CODE(2, 6));
  KZErrorClear();
  EXPECT_EQ(KZFormatProcessName("worker %d", 3), 0);
  EXPECT_EQ(KZErrorCode(), KZ_ERROR_CODE(2, 6));
  KZErrorClear();
}

TEST(ThreadState, FormatAndClear) {
  EXPECT_EQ(KZState_("serving %s", "client"), 1);
  intptr_t storage = KZState_(nullptr);
  ASSERT_NE(storage, 0);
  EXPECT_STREQ(reinterpret_cast<const char *>(storage), "");
  EXPECT_EQ(KZState_("again"), 1);
  EXPECT_STREQ(reinterpret_cast<const char *>(KZState_(nullptr)), "");
  EXPECT_EQ(KZGetState(), nullptr);
}

int g_exitStatus = -1;
intptr_t g_exitArgs[3];
void RecordExit(int status, intptr_t a, intptr_t b, intptr_t c) {
  g_exitStatus = status;
  g_exitArgs[0] = a;
  g_exitArgs[1] = b;
  g_exitArgs[2] = c;
}

TEST(ExitFunction, KZExitCallsTheInstalledFunction) {
  KZSetExit(RecordExit);
  KZExit(3, 10, 20, 30);
  EXPECT_EQ(g_exitStatus, 3);
  EXPECT_EQ(g_exitArgs[0], 10);
  EXPECT_EQ(g_exitArgs[2], 30);
  KZSetExit(nullptr);
  EXPECT_EXIT(KZExit(7, 0, 0, 0), testing::ExitedWithCode(7), "");
}

TEST(MessageLock, LinesFromManyThreadsStayWhole) {
  kztest::CapturedStream errors(1);
  constexpr int kThreads = 4, kLines = 300;
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; t++)
    threads.emplace_back([t] {
      for (int i = 0; i < kLines; i++) KZMessage(3, "thread %d line %d %s", t, i, "payload-payload-payload");
    });
  for (auto &thread : threads) thread.join();
  std::istringstream lines(errors.Text());
  std::string line;
  int count = 0;
  std::vector<int> next(kThreads, 0);
  std::regex whole(std::string(kStamp) + "kzlib: \"message_test.cpp:[0-9]+\": thread ([0-9]) line ([0-9]+) "
                   "payload-payload-payload\r");
  while (std::getline(lines, line)) {
    std::smatch match;
    ASSERT_TRUE(std::regex_match(line, match, whole)) << line;
    int t = std::stoi(match[1]);
    EXPECT_EQ(std::stoi(match[2]), next[t]++);  // each thread's lines in order
    count++;
  }
  EXPECT_EQ(count, kThreads * kLines);
}

}  // namespace
