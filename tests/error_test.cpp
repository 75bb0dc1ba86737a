// The per-thread error record.
#define KZ_MODULE_NAME "errtest"
#include <errno.h>
#include <string.h>

#include <string>
#include <thread>
#include <vector>

#include "kz/error.h"
#include "kz/format.h"
#include "test_support.h"

namespace {

struct Level {
  std::string text, module, function, file;
  uint32_t line;
};

void Collect(void *argument, const char *text, const char *module, const char *function, const char *file,
             uint32_t line) {
  static_cast<std::vector<Level> *>(argument)->push_back(Level{text, module, function, file, line});
}

std::vector<Level> Stack() {
  std::vector<Level> levels;
  KZErrorEnumerateStack(Collect, &levels);
  return levels;
}

class ErrorRecord : public testing::Test {
 protected:
  void SetUp() override { KZErrorClear(); }
  void TearDown() override { KZErrorClear(); }
};

TEST_F(ErrorRecord, ClearMeansNoError) {
  KZErrorThrow(KZ_ERR_GENERAL, "something");
  KZErrorClear();
  EXPECT_EQ(errno, 0);
  EXPECT_EQ(KZErrorCode(), 0u);
  int calls = 0;
  EXPECT_EQ(KZErrorEnumerateStack([](void *n, const char *, const char *, const char *, const char *,
                                     uint32_t) { ++*static_cast<int *>(n); },
                                  &calls),
            0);
  EXPECT_EQ(calls, 0);
}

TEST_F(ErrorRecord, SystemErrorIsRecordedOnDemand) {
  KZSetLastError(ENOENT);
  errno = -1;
  EXPECT_EQ(KZErrorCode(), 0x100000002ull);
  EXPECT_EQ(KZErrorGetErrno(), ENOENT);
  EXPECT_STREQ(KZErrorMessage(), "No such file or directory");
  EXPECT_EQ(errno, -2);
  EXPECT_EQ(KZErrorCode(), 0x100000002ull);
  // A number the system has no text for.
  KZSetLastError(99999);
  errno = -1;
  EXPECT_STREQ(KZErrorMessage(), "(system error 99999)");
}

TEST_F(ErrorRecord, RuntimeErrnoAndNoError) {
  errno = EINVAL;
  EXPECT_EQ(KZErrorCode(), KZ_ERROR_CODE(0, EINVAL));
  EXPECT_STREQ(KZErrorMessage(), "Invalid argument");
  EXPECT_EQ(KZErrorCode(), KZ_ERROR_CODE(0, EINVAL));
  errno = 99998;
  EXPECT_STREQ(KZErrorMessage(), "(errno=99998)");
  errno = 0;
  EXPECT_STREQ(KZErrorMessage(), "No error (or lost error number)");
  EXPECT_EQ(KZErrorCode(), 0u);
}

TEST_F(ErrorRecord, ThrowRecordsCodeTextAndLocation) {
  int line = __LINE__ + 1;
  int *marker = KZErrorThrow(KZ_ERR_TIMEOUT, "waited %d ms for %s", 250, "peer");
  EXPECT_EQ(marker, &errno);
  EXPECT_EQ(errno, -2);
  EXPECT_EQ(KZErrorCode(), KZ_ERROR_CODE(2, 2));
  EXPECT_STREQ(KZErrorMessage(), "waited 250 ms for peer");
  uint32_t at = 0;
  EXPECT_NE(strstr(KZErrorLocation(&at), "error_test.cpp"), nullptr);
  EXPECT_EQ(at, static_cast<uint32_t>(line));
  errno = -3;  // treated like -2
  EXPECT_EQ(KZErrorCode(), KZ_ERROR_CODE(2, 2));
}

TEST_F(ErrorRecord, RethrowsNestOutermostFirstAndEnumerateInnermostFirst) {
  int lineA = __LINE__ + 1;
  KZErrorThrow(KZ_ERR_PROTOCOL, "a");
  KZErrorRethrow("b");
  int lineC = __LINE__ + 1;
  KZErrorRethrow("c%d", 3);
  EXPECT_STREQ(KZErrorMessage(), "c3: b: a");
  EXPECT_EQ(KZErrorCode(), KZ_ERROR_CODE(2, 3));  // kept through rethrows
  std::vector<Level> levels = Stack();
  ASSERT_EQ(levels.size(), 3u);
  EXPECT_EQ(levels[0].text, "a");
  EXPECT_EQ(levels[1].text, "b");
  EXPECT_EQ(levels[2].text, "c3");
  EXPECT_EQ(levels[0].line, static_cast<uint32_t>(lineA));
  EXPECT_EQ(levels[2].line, static_cast<uint32_t>(lineC));
  EXPECT_EQ(levels[0].module, "errtest");
  EXPECT_EQ(levels[0].function, "TestBody");
  EXPECT_NE(levels[0].file.find("error_test.cpp"), std::string::npos);
  // Enumeration leaves the error as it was.
  EXPECT_STREQ(KZErrorMessage(), "c3: b: a");
  EXPECT_EQ(errno, -2);
}

TEST_F(ErrorRecord, RethrowWrapsAPendingSystemError) {
  KZSetLastError(EACCES);
  errno = -1;
  KZErrorRethrow("open \"%s\"", "/x");
  EXPECT_STREQ(KZErrorMessage(), "open \"/x\": Permission denied");
  EXPECT_EQ(KZErrorCode(), KZ_ERROR_CODE(1, EACCES));
  // A recorded-on-demand error has no stack entry of its own: the rethrow's
  // level is the only one, and levels are measured from the end of the message.
  std::vector<Level> levels = Stack();
  ASSERT_EQ(levels.size(), 1u);
  EXPECT_EQ(levels[0].text.size(), strlen("open \"/x\""));
  EXPECT_NE(levels[0].file.find("error_test.cpp"), std::string::npos);
}

TEST_F(ErrorRecord, FortyRethrowsKeepThirtyTwoLevelsAndCutTheMessage) {
  KZErrorThrow(KZ_ERR_GENERAL, "root");
  for (int i = 0; i < 40; i++) KZErrorRethrow("level %02d with some padding text to make it long", i);
  const char *message = KZErrorMessage();
  EXPECT_EQ(strlen(message), 1023u);
  EXPECT_EQ(std::string(message).rfind("level 39 with", 0), 0u);
  // Only the outermost levels whose text still ends at a separator are reported;
  // the stack itself holds 32 entries, the innermost first.
  std::vector<Level> levels = Stack();
  EXPECT_LE(levels.size(), 32u);
  // Without cutting: 32 entries enumerate fully.
  KZErrorClear();
  KZErrorThrow(KZ_ERR_GENERAL, "r");
  for (int i = 0; i < 40; i++) KZErrorRethrow("%d", i);
  levels = Stack();
  ASSERT_EQ(levels.size(), 32u);
  EXPECT_EQ(levels[0].text, "r");
  EXPECT_EQ(levels[31].text, "30");
  std::string expected = "39";
  for (int i = 38; i >= 0; i--) expected += ": " + std::to_string(i);
  EXPECT_EQ(KZErrorMessage(), expected + ": r");
}

TEST_F(ErrorRecord, SaveThrowRestore) {
  KZErrorThrow(KZ_ERR_INVALID, "first");
  void *saved = KZErrorSave();
  EXPECT_NE(saved, nullptr);
  EXPECT_EQ(errno, -2);
  KZErrorThrow(KZ_ERR_TIMEOUT, "second");
  const char *secondStorage = KZErrorMessage();
  KZErrorRestore();
  EXPECT_EQ(errno, -2);
  EXPECT_EQ(KZErrorCode(), KZ_ERR_INVALID);
  EXPECT_STREQ(KZErrorMessage(), "first");
  // The second record went to the free list: the next new record reuses it.
  KZErrorSave();
  KZErrorThrow(KZ_ERR_EOF, "third");
  EXPECT_EQ(KZErrorMessage(), secondStorage);
  KZErrorRestore();
  EXPECT_STREQ(KZErrorMessage(), "first");
}

TEST_F(ErrorRecord, SavedRecordsNest) {
  KZErrorThrow(KZ_ERR_GENERAL, "outer");
  KZErrorSave();
  KZErrorThrow(KZ_ERR_GENERAL, "inner");
  KZErrorSave();
  errno = 0;
  KZErrorRestore();
  EXPECT_STREQ(KZErrorMessage(), "inner");
  KZErrorRestore();
  EXPECT_STREQ(KZErrorMessage(), "outer");
}

TEST(ErrorRecordDeathTest, RestoreWithoutSaveAsserts) {
  EXPECT_DEATH(KZErrorRestore(), "'context != NULL && context->saved != NULL' failed at kzlib/kzlib:1619\n");
}

TEST_F(ErrorRecord, InputErrors) {
  struct Case {
    int status;
    uint64_t code;
    const char *text;
  } cases[] = {{-1, KZ_ERR_EOF, "read eof"},
               {-3, KZ_ERR_TIMEOUT, "read timeout"},
               {-4, KZ_ERR_PROTOCOL, "read protocol error"},
               {-5, KZ_ERR_GENERAL, "read truncated"},
               {-9, KZ_ERR_GENERAL, "unknown i/o error"}};
  for (const Case &c : cases) {
    KZErrorThrowInputError("config.txt", 12, c.status);
    EXPECT_EQ(KZErrorCode(), c.code) << c.status;
    EXPECT_STREQ(KZErrorMessage(), c.text);
  }
  errno = 0;
  KZErrorThrowInputError("in", 1, -2);
  EXPECT_EQ(KZErrorCode(), KZ_ERR_GENERAL);
  EXPECT_STREQ(KZErrorMessage(), "read error");
  errno = ENOENT;
  KZErrorThrowInputError("in", 1, -2);
  EXPECT_EQ(KZErrorCode(), KZ_ERROR_CODE(0, ENOENT));
  EXPECT_STREQ(KZErrorMessage(), "read error: No such file or directory");
  errno = -2;
  KZErrorThrowInputError("in", 1, 5);
  EXPECT_EQ(errno, 0);
  KZErrorThrowInputError("in", 1, 0);
  EXPECT_EQ(errno, 0);
}

TEST_F(ErrorRecord, ModuleFunctionAndPathShortening) {
  KZSetMessageContext2_("/home/dev/svn/trunk/kz/src/net.c", 10, "", nullptr, 4, 0);
  KZErrorThrow_(KZ_ERR_GENERAL, "inner");
  KZSetMessageContext2_("C:\\work\\svn\\proj\\a.c", 20, nullptr, "Outer", 4, 0);
  KZErrorRethrow_("outer");
  KZSetMessageContext2_("/src/svnx/b.c", 30, "mod", "F", 4, 0);
  KZErrorRethrow_("top");
  std::vector<Level> levels = Stack();
  ASSERT_EQ(levels.size(), 3u);
  EXPECT_EQ(levels[0].file, "trunk/kz/src/net.c");
  EXPECT_EQ(levels[0].module, "kzlib");  // empty module: the program name
  EXPECT_EQ(levels[0].function, "");
  EXPECT_EQ(levels[1].file, "proj\\a.c");
  EXPECT_EQ(levels[1].module, "");
  EXPECT_EQ(levels[1].function, "Outer");
  EXPECT_EQ(levels[2].file, "/src/svnx/b.c");
  EXPECT_EQ(levels[2].module, "mod");
  // The location drops everything up to "/kz/src/" only from the latest level.
  uint32_t line = 0;
  EXPECT_STREQ(KZErrorLocation(&line), "/src/svnx/b.c");
  KZSetMessageContext2_("/build/kz/src/net/tcp.c", 40, nullptr, nullptr, 4, 0);
  KZErrorThrow_(KZ_ERR_GENERAL, "x");
  EXPECT_STREQ(KZErrorLocation(&line), "net/tcp.c");
  EXPECT_EQ(line, 40u);
}

TEST_F(ErrorRecord, CallbackMayRaiseItsOwnErrors) {
  KZErrorThrow(KZ_ERR_GENERAL, "kept");
  KZErrorRethrow("wrapped");
  int calls = 0;
  EXPECT_EQ(KZErrorEnumerateStack(
                [](void *n, const char *, const char *, const char *, const char *, uint32_t) {
                  ++*static_cast<int *>(n);
                  KZErrorThrow(KZ_ERR_TIMEOUT, "callback's own");
                },
                &calls),
            1);
  EXPECT_EQ(calls, 2);
  EXPECT_STREQ(KZErrorMessage(), "wrapped: kept");
  EXPECT_EQ(KZErrorCode(), KZ_ERR_GENERAL);
}

TEST_F(ErrorRecord, PrintStackFormat) {
  kztest::CapturedStream errors(1);
  KZSetMessageContext2_("/a/svn/x.c", 1, "m", "f", 4, 0);
  KZErrorThrow_(KZ_ERR_GENERAL, "inner");
  KZSetMessageContext2_("y.c", 2, nullptr, "g", 4, 0);
  KZErrorRethrow_("outer");
  KZErrorPrintStack();
  EXPECT_EQ(errors.Text(), "\tThrown at m.f(x.c:1): inner\n\tat g(y.c:2): outer\n");
}

TEST(ErrorRecordThreads, RecordsArePerThread) {
  KZErrorThrow(KZ_ERR_GENERAL, "main thread");
  std::string seen;
  uint64_t codeSeen = 1;
  const char *location = nullptr;
  std::thread other([&] {
    codeSeen = KZErrorCode();  // fresh thread: errno 0, no context
    location = KZErrorLocation(nullptr);
    KZErrorThrow(KZ_ERR_TIMEOUT, "other thread");
    seen = KZErrorMessage();
  });
  other.join();
  EXPECT_EQ(codeSeen, 0u);
  EXPECT_STREQ(location, "(no file)");
  EXPECT_EQ(seen, "other thread");
  EXPECT_STREQ(KZErrorMessage(), "main thread");
  KZErrorClear();
}

TEST(ErrorRecordThreads, ThreadsThatEndFreeTheirRecords) {
  // Under LeakSanitizer this fails if a thread's context or records leak.
  for (int round = 0; round < 20; round++) {
    std::vector<std::thread> threads;
    for (int t = 0; t < 8; t++)
      threads.emplace_back([] {
        KZErrorThrow(KZ_ERR_GENERAL, "x");
        KZErrorSave();
        KZErrorThrow(KZ_ERR_GENERAL, "y");
        KZErrorSave();
        KZErrorRethrow("z");
      });
    for (auto &thread : threads) thread.join();
  }
  SUCCEED();
}

TEST(RunProtected, ReturnsTheFunctionsResult) {
  int value = 20;
  EXPECT_EQ(KZRunProtected(
                [](void *argument) -> int64_t { return *static_cast<int *>(argument) * 2 + 2; }, &value, nullptr),
            42);
}

}  // namespace
