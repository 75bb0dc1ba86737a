// The per-thread error record.
#define KZ_MODULE_NAME "errtest"
#include <errno.h>
#include <string.h>

#include <thread>
#include <vector>

#include "kz/error.h"
#include "test_support.h"

namespace {

// The stack levels, innermost first, each as "text|module|function|file:line".
std::vector<std::string> Stack() {
  std::vector<std::string> levels;
  auto add = [](void *to, const char *text, const char *module, const char *function, const char *file, uint32_t line) {
    static_cast<std::vector<std::string> *>(to)->push_back(std::string(text) + "|" + module + "|" + function + "|" +
                                                           file + ":" + std::to_string(line));
  };
  return KZErrorEnumerateStack(add, &levels), levels;
}

struct ErrorRecord : testing::Test {
  void TearDown() override { KZErrorClear(); }
};

TEST_F(ErrorRecord, ClearEmptiesTheRecordAndErrno) {
  KZErrorThrow(KZ_ERR_GENERAL, "something"), KZErrorClear();
  EXPECT_EQ(errno, 0);
  EXPECT_EQ(KZErrorCode(), 0u);
  EXPECT_EQ(Stack(), std::vector<std::string>());
}

TEST_F(ErrorRecord, WithNothingThrownTheSystemsErrorIsReported) {
  KZSetLastError(ENOENT), errno = -1;  // the system's error, kept when its text is read
  EXPECT_EQ(KZErrorCode(), 0x100000002ull);
  EXPECT_EQ(KZErrorMessage(), kztest::SystemErrorText(2));  // ENOENT on POSIX
  EXPECT_EQ(KZErrorCode(), 0x100000002ull);
  errno = EINVAL;
  EXPECT_EQ(KZErrorCode(), KZ_ERROR_CODE(0, EINVAL));
  EXPECT_EQ(KZErrorMessage(), kztest::ErrnoText(EINVAL));
}

TEST_F(ErrorRecord, RethrowsNestOutermostFirstAndEnumerateInnermostFirst) {
  auto at = [](int line) { return "|errtest|TestBody|" __FILE__ ":" + std::to_string(line); };
  const int line = __LINE__ + 1;
  KZErrorThrow(KZ_ERR_PROTOCOL, "a");
  KZErrorRethrow("b");
  KZErrorRethrow("c%d", 3);
  EXPECT_STREQ(KZErrorMessage(), "c3: b: a");
  EXPECT_EQ(KZErrorCode(), KZ_ERROR_CODE(2, 3));
  EXPECT_EQ(Stack(), (std::vector<std::string>{"a" + at(line), "b" + at(line + 1), "c3" + at(line + 2)}));
  EXPECT_STREQ(KZErrorMessage(), "c3: b: a");  // enumeration changed nothing
}

TEST_F(ErrorRecord, FortyRethrowsKeepThirtyTwoLevelsAndCutTheMessage) {
  KZErrorThrow(KZ_ERR_GENERAL, "r");
  std::string expected = "r";
  for (int i = 0; i < 40; i++) KZErrorRethrow("%d", i), expected = std::to_string(i) + ": " + expected;
  std::vector<std::string> levels = Stack();
  ASSERT_EQ(levels.size(), 32u);
  EXPECT_EQ(levels[0].substr(0, levels[0].find('|')), "r");  // the first 32 levels kept
  EXPECT_EQ(levels[31].substr(0, levels[31].find('|')), "30");
  EXPECT_EQ(KZErrorMessage(), expected);
  KZErrorThrow(KZ_ERR_GENERAL, "root");
  for (int i = 0; i < 40; i++) KZErrorRethrow("level %02d with some padding text to make it long", i);
  EXPECT_EQ(strlen(KZErrorMessage()), 1023u);
  EXPECT_EQ(std::string(KZErrorMessage()).rfind("level 39 with", 0), 0u);
}

TEST_F(ErrorRecord, SaveThrowRestoreReusesTheFreedRecord) {
  KZErrorThrow(KZ_ERR_INVALID, "first"), KZErrorSave();
  KZErrorThrow(KZ_ERR_TIMEOUT, "second");
  const char *secondStorage = KZErrorMessage();
  KZErrorRestore();
  EXPECT_EQ(KZErrorCode(), KZ_ERR_INVALID);
  EXPECT_STREQ(KZErrorMessage(), "first");
  KZErrorSave(), KZErrorThrow(KZ_ERR_EOF, "third");
  EXPECT_EQ(KZErrorMessage(), secondStorage);
  KZErrorRestore();
  EXPECT_STREQ(KZErrorMessage(), "first");
}

TEST(ErrorRecordDeathTest, RestoreWithoutSaveAsserts) {
  EXPECT_DEATH(KZErrorRestore(), "'context != NULL && context->saved != NULL' failed at kzlib/kzlib:1619\n");
}

TEST_F(ErrorRecord, InputErrorsMapTheReadStatusToCodeAndText) {
  static const std::string noFile = "read error: " + kztest::ErrnoText(ENOENT);
  const struct {
    int status, errnoBefore;
    uint64_t code;
    const char *text;
  } cases[] = {{-1, 0, KZ_ERR_EOF, "read eof"},
               {-3, 0, KZ_ERR_TIMEOUT, "read timeout"},
               {-4, 0, KZ_ERR_PROTOCOL, "read protocol error"},
               {-5, 0, KZ_ERR_GENERAL, "read truncated"},
               {-9, 0, KZ_ERR_GENERAL, "unknown i/o error"},
               {-2, 0, KZ_ERR_GENERAL, "read error"},
               {-2, ENOENT, KZ_ERROR_CODE(0, ENOENT), noFile.c_str()},
               {5, -2, 0, nullptr}};
  for (const auto &c : cases) {
    errno = c.errnoBefore;
    KZErrorThrowInputError("config.txt", 12, c.status);
    EXPECT_EQ(KZErrorCode(), c.code) << c.status;
    if (c.text) {
      EXPECT_STREQ(KZErrorMessage(), c.text) << c.status;
    } else {
      EXPECT_EQ(errno, 0) << c.status;  // a count read: errno cleared
    }
  }
}

TEST_F(ErrorRecord, PathShorteningModulesAndPrintStack) {
  kztest::CapturedStream errors(1);
  KZSetMessageContext2_("/home/dev/svn/trunk/kz/src/net.c", 10, "", nullptr, 4, 0);
  KZErrorThrow_(KZ_ERR_GENERAL, "inner");
  KZSetMessageContext2_("C:\\work\\svn\\proj\\a.c", 20, "m", "f", 4, 0), KZErrorRethrow_("outer");
  KZSetMessageContext2_("y.c", 2, nullptr, "g", 4, 0), KZErrorRethrow_("top");
  // An empty module is the program's name, a null one empty; the path after "svn" is kept.
  EXPECT_EQ(Stack(),
            (std::vector<std::string>{"inner|kzlib||trunk/kz/src/net.c:10", "outer|m|f|proj\\a.c:20", "top||g|y.c:2"}));
  KZErrorPrintStack();
  EXPECT_EQ(errors.Text(),
            "\tThrown at kzlib.(trunk/kz/src/net.c:10): inner\n\tat m.f(proj\\a.c:20): outer\n\tat g(y.c:2): top\n");
}

TEST(ErrorRecordThreads, PerThreadRecordsFreedAtThreadEnd) {
  KZErrorThrow(KZ_ERR_GENERAL, "main thread");
  std::string seen;
  std::thread([&] {
    seen = std::to_string(KZErrorCode()) + " ";  // fresh thread: no error
    KZErrorThrow(KZ_ERR_TIMEOUT, "other thread");
    seen += KZErrorMessage();
  }).join();
  EXPECT_EQ(seen, "0 other thread");
  EXPECT_STREQ(KZErrorMessage(), "main thread");
  KZErrorClear();
  // LeakSanitizer fails this if a thread's context or saved records leak.
  std::vector<std::thread> threads(8);
  for (auto &thread : threads)
    thread = std::thread([] { KZErrorThrow(KZ_ERR_GENERAL, "x"), KZErrorSave(), KZErrorRethrow("z"); });
  for (auto &thread : threads) thread.join();
}

TEST(RunProtected, ReturnsTheFunctionsResult) {
  int value = 20;
  EXPECT_EQ(KZRunProtected([](void *v) -> int64_t { return *static_cast<int *>(v) * 2 + 2; }, &value, nullptr), 42);
}

}  // namespace
