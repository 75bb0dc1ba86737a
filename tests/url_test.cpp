// URLs: parsing, reference resolution, printing, normalisation, fingerprints,
// top-domain hashes and the url pool.
#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "kz/error.h"
#include "kz/url.h"
#include "test_support.h"

namespace {

std::string Text(const UByteArray &a) {
  if (a.count == 0) return "<none>";
  return std::string(reinterpret_cast<const char *>(a.elements), a.count - 1);
}

// A record that frees its buffers at the end of the scope.
struct Url {
  URL u;
  Url() { URLInit(&u); }
  ~Url() { URLFree(&u); }
  URL *operator->() { return &u; }
  URL *get() { return &u; }
};

std::string Print(const URL *url) {
  UByteArray out = {nullptr, 0, 0};
  std::string text = URLPrint(&out, url);
  EXPECT_EQ(out.count, URLPrintSize(url) + 1);
  ArrayFree(out);
  return text;
}

// Parses text (relative to base when given) and returns the printed form,
// with the fragment appended, or "error: <message>".
std::string Resolve(const char *text, const URL *base, int acceptQuery = 1, int strict = 1,
                    int eightBit = 0) {
  Url url;
  KZErrorClear();
  if (!URLParse3(text, url.get(), base, acceptQuery, strict, eightBit)) {
    EXPECT_EQ(KZErrorCode(), 0x200000000ull) << text;
    return std::string("error: ") + KZErrorMessage();
  }
  EXPECT_TRUE(url->u_scheme == SCHEME_FILE || URLIsValid(url.get())) << text;
  return Print(url.get()) + Text(url->u_fragment);
}

TEST(UrlSchemes, TableAndLookup) {
  const struct {
    const char *name;
    uint32_t port;
  } expected[SCHEME_NUM] = {{"http", 80}, {"https", 443}, {"ftp", 21},
                            {"file", 0},  {"mailto", 0},  {"news", 119}};
  for (uint32_t i = 0; i < SCHEME_NUM; ++i) {
    EXPECT_STREQ(URLSchemeName(i), expected[i].name);
    EXPECT_EQ(URLSchemePort(i), expected[i].port);
    int32_t found = -1;
    std::string upper = expected[i].name;
    for (char &c : upper) c = static_cast<char>(toupper(c));
    EXPECT_EQ(URLParseScheme(upper.c_str(), &found), 1);
    EXPECT_EQ(found, static_cast<int32_t>(i));
  }
  int32_t found = 7;
  for (const char *name : {"htt", "httpx", "", "javascript", "http:"}) {
    KZErrorClear();
    EXPECT_EQ(URLParseScheme(name, &found), 0) << name;
    EXPECT_EQ(found, 7);
    EXPECT_EQ(KZErrorCode(), 0u);
  }
}

TEST(UrlSchemes, OutOfRangeIndexIsAnAssertion) {
  EXPECT_DEATH(URLSchemeName(SCHEME_NUM), "scheme < SCHEME_NUM");
  EXPECT_DEATH(URLSchemePort(0xFFFFFFFFu), "scheme < SCHEME_NUM");
}

// Components as stored, one case per rule of the authority and path parsers.
TEST(UrlParse, StoredComponents) {
  const struct {
    const char *text;
    int scheme;
    const char *host, *user, *path, *query, *fragment;
    unsigned port;
  } cases[] = {
      {"HTTP://Alpha.Beta.GAMMA", SCHEME_HTTP, "alpha.beta.gamma", "", "/", "", "", 80},
      {"https://h:8443/p?q#f", SCHEME_HTTPS, "h", "", "/p", "?q", "#f", 8443},
      {"ftp://u:pw@h/", SCHEME_FTP, "h", "u:pw", "/", "", "", 21},
      {"http://host:/", SCHEME_HTTP, "host", "", "/", "", "", 80},
      {"http://host:00080/", SCHEME_HTTP, "host", "", "/", "", "", 80},
      {"http://host:65535", SCHEME_HTTP, "host", "", "/", "", "", 65535},
      {"http://010.001.000.001/", SCHEME_HTTP, "10.1.0.1", "", "/", "", "", 80},
      {"http://1.2.3.256/", SCHEME_HTTP, "1.2.3.256", "", "/", "", "", 80},
      {"http://1.2.3.4./", SCHEME_HTTP, "1.2.3.4", "", "/", "", "", 80},
      {"http://01.2.3.4./", SCHEME_HTTP, "01.2.3.4", "", "/", "", "", 80},
      {"http://1.2.3/", SCHEME_HTTP, "1.2.3", "", "/", "", "", 80},
      {"http://1.2.3.4.5/", SCHEME_HTTP, "1.2.3.4.5", "", "/", "", "", 80},
      {"http://alpha.beta./", SCHEME_HTTP, "alpha.beta", "", "/", "", "", 80},
      {"http://a-b_c.d/", SCHEME_HTTP, "a-b_c.d", "", "/", "", "", 80},
      {"http://[::1]:8080/x", SCHEME_HTTP, "[::1]", "", "/x", "", "", 8080},
      {"http://[FE80::A:b]/", SCHEME_HTTP, "[fe80::a:b]", "", "/", "", "", 80},
      {"http://[1:2:3:4:5:6::8]/", SCHEME_HTTP, "[1:2:3:4:5:6::8]", "", "/", "", "", 80},
      {"http://[::ffff:1.2.3.4]/", SCHEME_HTTP, "[::ffff:1.2.3.4]", "", "/", "", "", 80},
      {"file:///tmp/a", SCHEME_FILE, "", "", "/tmp/a", "", "", 0},
      {"http://h/a%41%2f b", SCHEME_HTTP, "h", "", "/aA%2f%20b", "", "", 80},
      {"http://h/%7e%7E%2E%00%3F", SCHEME_HTTP, "h", "", "/~~.%00%3f", "", "", 80},
      {"http://h/\xC3\xA9?\xFF#x y", SCHEME_HTTP, "h", "", "/%c3%a9", "?%ff", "#x%20y", 80},
      {"http://h/{}|\\^[]`;:@&=+$,!*'()", SCHEME_HTTP, "h", "", "/{}|\\^[]`;:@&=+$,!*'()", "", "",
       80},
      {"http://h?a=1/2?b", SCHEME_HTTP, "h", "", "/", "?a=1/2?b", "", 80},
      {"http://h#", SCHEME_HTTP, "h", "", "/", "", "#", 80},
      {"http://a b\"<>%zz@h/", SCHEME_HTTP, "h", "a%20b%22%3c%3e%zz", "/", "", "", 80},
      {"http://@h/", SCHEME_HTTP, "h", "", "/", "", "", 80},
  };
  for (const auto &c : cases) {
    Url url;
    ASSERT_EQ(URLParse(c.text, url.get(), nullptr, 1), 1) << c.text << ": " << KZErrorMessage();
    EXPECT_EQ(url->u_scheme, c.scheme) << c.text;
    EXPECT_EQ(Text(url->u_host), c.host) << c.text;
    EXPECT_EQ(Text(url->u_user), c.user) << c.text;
    EXPECT_EQ(Text(url->u_path), c.path) << c.text;
    EXPECT_EQ(Text(url->u_query), c.query) << c.text;
    EXPECT_EQ(Text(url->u_fragment), c.fragment) << c.text;
    EXPECT_EQ(url->u_port, c.port) << c.text;
    EXPECT_EQ(URLIsValid(url.get()), c.scheme != SCHEME_FILE) << c.text;
  }
}

TEST(UrlParse, Failures) {
  std::string label255(255, 'a'), label256(256, 'a');
  std::string longLabelOk = "http://" + label255 + ".b/";
  std::string longLabel = "http://" + label256 + ".b/";
  std::string longFinal = "http://b." + label256 + "/";
  const struct {
    const char *text;
    const char *message;
  } cases[] = {
      {"javascript:x", "unsupported scheme"},
      {"htp://h/", "unsupported scheme"},
      {"x", "relative url without base"},
      {"", "relative url without base"},
      {"//h/", "relative url without base"},
      {"mailto:x", "invalid scheme"},
      {"news://h/", "invalid scheme"},
      {"http:/x", "missing authority"},
      {"http:x", "missing authority"},
      {"file:/tmp", "missing authority"},
      {"http://host:0/", "invalid authority"},
      {"http://host:65536/", "invalid authority"},
      {"http://host:99999999999/", "invalid authority"},
      {"http://host:8o/", "invalid authority"},
      {"http://a..b/", "invalid authority"},
      {"http://.a/", "invalid authority"},
      {"http://-a.b/", "invalid authority"},
      {"http://a._b/", "invalid authority"},
      {"http://a.b../", "invalid authority"},
      {"http:///", "invalid authority"},
      {"http://:80/", "invalid authority"},
      {"http://[g::1]/", "invalid authority"},
      {"http://[::1]x/", "invalid authority"},
      {"http://[::1/", "invalid authority"},
      {"http://[]/", "invalid authority"},
      {"http://a[::1]/", "invalid authority"},
      {"http://a]/", "invalid authority"},
      {"http://[1:2:3:4:5:6:7:8:9]/", "invalid authority"},
      {"http://[::-1]/", "invalid authority"},
      {"http://a b/", "invalid authority"},
      {"http://a%41/", "invalid authority"},
      {"http://h\xC3\xA9/", "invalid authority"},
      {longLabel.c_str(), "invalid authority"},
      {longFinal.c_str(), "invalid authority"},
      {"http://h/a%4", "invalid absolute path"},
      {"http://h/a%4g", "invalid absolute path"},
      {"http://h/a\"b", "invalid absolute path"},
      {"http://h/a<b", "invalid absolute path"},
      {"http://h/a\x7f", "invalid absolute path"},
      {"http://h/a\tb", "invalid absolute path"},
      {"http://h/?a%zz", "invalid query"},
      {"http://h/?a>b", "invalid query"},
      {"http://h/#a#b", "invalid fragment"},
      {"http://h/#%", "invalid fragment"},
  };
  for (const auto &c : cases) EXPECT_EQ(Resolve(c.text, nullptr), std::string("error: ") + c.message) << c.text;
  EXPECT_EQ(Resolve(longLabelOk.c_str(), nullptr), longLabelOk);
  // Eight colons inside brackets are too many; seven are the limit.
  EXPECT_EQ(Resolve("http://[1:2:3:4:5:6:7:8]/", nullptr), "http://[1:2:3:4:5:6:7:8]/");
  EXPECT_EQ(Resolve("http://[1:2:3:4:5:6:7:8:]/", nullptr), "error: invalid authority");

  // The error names the parser and its source.
  Url url;
  ASSERT_EQ(URLParse("mailto:x", url.get(), nullptr, 1), 0);
  uint32_t line = 0;
  EXPECT_STREQ(KZErrorLocation(&line), "kzlib/url");
  EXPECT_GT(line, 0u);
}

TEST(UrlParse, EightBitHostBytes) {
  EXPECT_EQ(Resolve("http://h\xC3\xA9.de/", nullptr, 1, 1, 1), "http://h\xC3\xA9.de/");
  EXPECT_EQ(Resolve("http://\xC3\x89.DE/", nullptr, 1, 1, 1), "http://\xC3\x89.de/");
  EXPECT_EQ(Resolve("http://[::\xC3]/", nullptr, 1, 1, 1), "error: invalid authority");
  // A high byte ends the chance of a dotted quad.
  EXPECT_EQ(Resolve("http://1.2.3.04\xC3/", nullptr, 1, 1, 1), "http://1.2.3.04\xC3/");
}

TEST(UrlParse, QueryNeedsItsFlag) {
  EXPECT_EQ(Resolve("http://h/p?x", nullptr, 0), "error: invalid query");
  EXPECT_EQ(Resolve("http://h/p#x", nullptr, 0), "http://h/p#x");
}

class UrlResolve : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(URLParse("http://a/b/c/d;p?q", base_.get(), nullptr, 1), 1);
    ASSERT_EQ(URLParse("http://h/a/b/c?q#f", base2_.get(), nullptr, 1), 1);
  }
  Url base_, base2_;
};

// The reference resolution examples of RFC 3986, section 5.4, against
// "http://a/b/c/d;p?q". Where the library differs from the RFC, the RFC's
// result is in the comment.
TEST_F(UrlResolve, Rfc3986Examples) {
  const struct {
    const char *reference;
    const char *expected;
  } cases[] = {
      // Normal examples.
      {"g:h", "error: unsupported scheme"},  // RFC: "g:h" (only six schemes are known)
      {"g", "http://a/b/c/g"},
      {"./g", "http://a/b/c/g"},
      {"g/", "http://a/b/c/g/"},
      {"/g", "http://a/g"},
      {"//g", "http://g/"},  // RFC: "http://g" (an empty path prints as "/")
      {"?y", "http://a/b/c/d;p?y"},
      {"g?y", "http://a/b/c/g?y"},
      {"#s", "http://a/b/c/d;p?q#s"},
      {"g#s", "http://a/b/c/g#s"},
      {"g?y#s", "http://a/b/c/g?y#s"},
      {";x", "http://a/b/c/;x"},
      {"g;x", "http://a/b/c/g;x"},
      {"g;x?y#s", "http://a/b/c/g;x?y#s"},
      {"", "http://a/b/c/d;p?q"},
      {".", "http://a/b/c/"},
      {"./", "http://a/b/c/"},
      {"..", "http://a/b/"},
      {"../", "http://a/b/"},
      {"../g", "http://a/b/g"},
      {"../..", "http://a/"},
      {"../../", "http://a/"},
      {"../../g", "http://a/g"},
      // Abnormal examples.
      {"../../../g", "error: invalid relative path"},     // RFC: "http://a/g" (strict by default)
      {"../../../../g", "error: invalid relative path"},  // RFC: "http://a/g"
      {"/./g", "http://a/./g"},    // RFC: "http://a/g" (absolute paths are taken as written)
      {"/../g", "http://a/../g"},  // RFC: "http://a/g"
      {"g.", "http://a/b/c/g."},
      {".g", "http://a/b/c/.g"},
      {"g..", "http://a/b/c/g.."},
      {"..g", "http://a/b/c/..g"},
      {"./../g", "http://a/b/g"},
      {"./g/.", "http://a/b/c/g"},  // RFC: "http://a/b/c/g/" (a trailing "/." leaves no "/")
      {"g/./h", "http://a/b/c/g/h"},
      {"g/../h", "http://a/b/c/h"},
      {"g;x=1/./y", "http://a/b/c/g;x=1/y"},
      {"g;x=1/../y", "http://a/b/c/y"},
      {"g?y/./x", "http://a/b/c/g?y/./x"},
      {"g?y/../x", "http://a/b/c/g?y/../x"},
      {"g#s/./x", "http://a/b/c/g#s/./x"},
      {"g#s/../x", "http://a/b/c/g#s/../x"},
      {"http:g", "error: missing authority"},  // RFC: "http:g" (strict) or "http://a/b/c/g"
  };
  for (const auto &c : cases) EXPECT_EQ(Resolve(c.reference, base_.get()), c.expected) << c.reference;

  // Without strict dot segments ".." stops at the root.
  EXPECT_EQ(Resolve("../../../g", base_.get(), 1, 0), "http://a/g");
  EXPECT_EQ(Resolve("../../../../g", base_.get(), 1, 0), "http://a/g");
}

TEST_F(UrlResolve, LibraryRules) {
  const struct {
    const char *reference;
    const char *expected;
  } cases[] = {
      {"", "http://h/a/b/c?q"},
      {"#g", "http://h/a/b/c?q#g"},
      {"?y", "http://h/a/b/c?y"},
      {"d", "http://h/a/b/d"},
      {"./d", "http://h/a/b/d"},
      {"../d", "http://h/a/d"},
      {".", "http://h/a/b/"},
      {"..", "http://h/a/"},
      {"d/.", "http://h/a/b/d"},   // a trailing "/." leaves no "/"
      {"d/..", "http://h/a/b"},    // nor does a trailing "/.."
      {"d//e", "http://h/a/b/d//e"},
      {"d%2e%41 x", "http://h/a/b/d.A%20x"},
      {"//other:81", "http://other:81/"},
      {"//u@other/x", "http://u@other/x"},
      {"https:/x", "error: missing authority"},
      {"d?q#a#b", "error: invalid fragment"},
      {"d\"", "error: invalid relative path"},
      {"../../../d", "error: invalid relative path"},
  };
  for (const auto &c : cases) EXPECT_EQ(Resolve(c.reference, base2_.get()), c.expected) << c.reference;
  EXPECT_EQ(Resolve("?y", base2_.get(), 0), "error: invalid query");
  EXPECT_EQ(Resolve("../../../d", base2_.get(), 1, 0), "http://h/d");
  EXPECT_EQ(Resolve("../..", base2_.get(), 1, 0), "http://h/");
  EXPECT_EQ(Resolve("..", base2_.get(), 1, 0), "http://h/a/");
}

TEST_F(UrlResolve, BaseDotSegmentsAndHostInheritance) {
  Url base;
  ASSERT_EQ(URLParse("ftp://u@h:2121/a/./b/../c/.", base.get(), nullptr, 1), 1);
  EXPECT_EQ(Resolve("d", base.get()), "ftp://u@h:2121/a/c/d");
  ASSERT_EQ(URLParse("http://h/a/..", base.get(), nullptr, 1), 1);
  EXPECT_EQ(Resolve("d", base.get()), "http://h/d");
  // ".." above the root of the base path fails even without strict segments.
  ASSERT_EQ(URLParse("http://h/../x", base.get(), nullptr, 1), 1);
  EXPECT_EQ(Resolve("d", base.get(), 1, 0), "error: invalid relative path");

  // A base of a scheme without a hierarchy is ignored.
  Url mail;
  mail->u_scheme = SCHEME_MAILTO;
  EXPECT_EQ(Resolve("d", mail.get()), "error: relative url without base");

  // A record can be resolved against itself.
  Url self;
  ASSERT_EQ(URLParse("http://h/a/b?q", self.get(), nullptr, 1), 1);
  ASSERT_EQ(URLParse("../c#f", self.get(), self.get(), 1), 1);
  EXPECT_EQ(Print(self.get()), "http://h/c");
}

TEST(UrlParse, AbsolutePathOnly) {
  Url url;
  EXPECT_EQ(URLParseAbsolutePath("/a b/%41", url.get()), 1);
  EXPECT_EQ(Text(url->u_path), "/a%20b/A");
  EXPECT_EQ(URLParseAbsolutePath("", url.get()), 1);
  EXPECT_EQ(Text(url->u_path), "/");
  KZErrorClear();
  for (const char *bad : {"/a?b", "/a#b", "a", "/a%", "/<"}) EXPECT_EQ(URLParseAbsolutePath(bad, url.get()), 0) << bad;
  EXPECT_EQ(KZErrorCode(), 0u);
}

TEST(UrlPrint, SizesAndForms) {
  const struct {
    const char *text;
    const char *printed;
  } cases[] = {
      {"http://host:80/", "http://host/"},
      {"http://host:8080/", "http://host:8080/"},
      {"https://u@h:1/p?q#f", "https://u@h:1/p?q"},
      {"ftp://h:21/", "ftp://h/"},
      {"ftp://h:65535/", "ftp://h:65535/"},
      {"file:///x", "file:///x"},
      {"file://h:9/x", "file://h:9/x"},
  };
  for (const auto &c : cases) {
    Url url;
    ASSERT_EQ(URLParse(c.text, url.get(), nullptr, 1), 1) << c.text;
    EXPECT_EQ(URLPrintSize(url.get()), strlen(c.printed)) << c.text;
    char buffer[64];
    memset(buffer, 'x', sizeof buffer);
    EXPECT_EQ(URLPrintBytes(buffer, url.get()), strlen(c.printed));
    EXPECT_STREQ(buffer, c.printed);
    EXPECT_EQ(Print(url.get()), c.printed);
  }

  // URLPrint overwrites from the start and grows the array once at most.
  Url url;
  ASSERT_EQ(URLParse("http://example.com/a/long/enough/path?with=query", url.get(), nullptr, 1), 1);
  UByteArray out = {nullptr, 0, 0};
  URLPrint(&out, url.get());
  unsigned char *first = out.elements;
  uint32_t capacity = out.capacity;
  EXPECT_GE(capacity, URLPrintSize(url.get()) + 1);
  ASSERT_EQ(URLParse("http://e.com/", url.get(), nullptr, 1), 1);
  EXPECT_STREQ(URLPrint(&out, url.get()), "http://e.com/");
  EXPECT_EQ(out.elements, first);
  EXPECT_EQ(out.capacity, capacity);
  EXPECT_EQ(out.count, 14u);
  ArrayFree(out);
}

TEST(UrlPrint, PrintThenParseGivesTheSamePrint) {
  for (const char *text : {"http://u%20x:p@h.example:81/a/%2f/b;c?d=%26&e#f", "https://[::1]/",
                           "ftp://1.2.3.4:2/x", "http://h/~a/%7E?%7e"}) {
    Url first, second;
    ASSERT_EQ(URLParse(text, first.get(), nullptr, 1), 1) << text;
    std::string printed = Print(first.get());
    ASSERT_EQ(URLParse(printed.c_str(), second.get(), nullptr, 1), 1) << printed;
    EXPECT_EQ(Print(second.get()), printed);
  }
}

TEST(UrlCopyAndPool, CopyIsDeep) {
  Url a, b;
  ASSERT_EQ(URLParse("https://u@h:9/p?q#f", a.get(), nullptr, 1), 1);
  URLCopy(b.get(), a.get());
  ASSERT_EQ(URLParse("http://other/", a.get(), nullptr, 1), 1);
  EXPECT_EQ(Print(b.get()) + Text(b->u_fragment), "https://u@h:9/p?q#f");
  URL *fresh = URLNew();
  EXPECT_EQ(fresh->u_scheme, 0);
  EXPECT_EQ(fresh->u_host.count + fresh->u_path.count + fresh->u_query.capacity, 0u);
  EXPECT_EQ(fresh->u_host.elements, nullptr);
  URLDelete(fresh);
}

TEST(UrlValidity, RecordsByHand) {
  Url url;
  ASSERT_EQ(URLParse("http://h/p?q#f", url.get(), nullptr, 1), 1);
  EXPECT_EQ(URLIsValid(url.get()), 1);
  Url normalised;
  URLNormalize(normalised.get(), url.get());
  EXPECT_EQ(normalised->u_user.count, 0u);
  EXPECT_EQ(URLIsValid(normalised.get()), 1);  // zero-length user info and fragment mean none

  url->u_scheme = 6;
  EXPECT_EQ(URLIsValid(url.get()), 0);
  url->u_scheme = -1;
  EXPECT_EQ(URLIsValid(url.get()), 0);
  url->u_scheme = SCHEME_HTTP;
  url->u_query.elements[0] = 'x';
  EXPECT_EQ(URLIsValid(url.get()), 0);
  url->u_query.elements[0] = '?';
  url->u_fragment.elements[0] = 'x';
  EXPECT_EQ(URLIsValid(url.get()), 0);
  url->u_fragment.elements[0] = '#';
  url->u_path.elements[0] = 'p';
  EXPECT_EQ(URLIsValid(url.get()), 0);
  url->u_scheme = SCHEME_MAILTO;  // no hierarchy: the path need not start with "/"
  EXPECT_EQ(URLIsValid(url.get()), 1);
  url->u_host.elements[url->u_host.count - 1] = 'x';
  EXPECT_EQ(URLIsValid(url.get()), 0);
  Url empty;
  EXPECT_EQ(URLIsValid(empty.get()), 0);
}

TEST(UrlSimpleHttp, SchemeAndUserInfo) {
  Url url;
  ASSERT_EQ(URLParse("http://h/", url.get(), nullptr, 1), 1);
  EXPECT_EQ(URLIsSimpleHTTP(url.get()), 1);
  EXPECT_EQ(URLGetScheme(url.get()), SCHEME_HTTP);
  ASSERT_EQ(URLParse("http://u@h/", url.get(), nullptr, 1), 1);
  EXPECT_EQ(URLIsSimpleHTTP(url.get()), 0);
  ASSERT_EQ(URLParse("https://h/", url.get(), nullptr, 1), 1);
  EXPECT_EQ(URLIsSimpleHTTP(url.get()), 0);
}

std::string Normalised(const char *text, int full = 1) {
  Url url, out;
  EXPECT_EQ(URLParse2(text, url.get(), nullptr, 1, 1), 1) << text;
  URLNormalize2(out.get(), url.get(), full);
  EXPECT_EQ(out->u_fragment.count, 0u);
  return Print(out.get());
}

TEST(UrlNormalize, Rules) {
  const struct {
    const char *text;
    const char *full;
    const char *light;
  } cases[] = {
      {"http://h/A//B/./C/../index.html?x=1&#f", "http://h/a/b/?x=1", "http://h/A//B/index.html?x=1"},
      {"http://h/A//B/./C/../index.html?#f", "http://h/a/b", "http://h/A//B/index.html?"},
      {"http://u:p@h/", "http://h/", "http://h/"},
      {"http://h/a/b/..", "http://h/a", "http://h/a/"},
      {"http://h/a/b/.", "http://h/a/b", "http://h/a/b/"},
      {"http://h/../../a", "http://h/a", "http://h/a"},
      {"http://h/.a/..b/.../c", "http://h/.a/..b/.../c", "http://h/.a/..b/.../c"},
      {"http://h/a/index.html/index.htm", "http://h/a", "http://h/a/index.html/index.htm"},
      {"http://h/index.asp", "http://h/", "http://h/index.asp"},
      {"http://h/INDEX.HTML", "http://h/", "http://h/INDEX.HTML"},
      {"http://h/x/default.asp?y", "http://h/x/?y", "http://h/x/default.asp?y"},
      {"http://h/x/default.aspx", "http://h/x/default.aspx", "http://h/x/default.aspx"},
      {"http://h/x/?a=1&&", "http://h/x/?a=1", "http://h/x/?a=1"},
      {"http://h/x/?&", "http://h/x/?", "http://h/x/?"},
      {"http://h/x/?", "http://h/x", "http://h/x/?"},
      {"http://h/%C3%89%c3%89\xC3\x89", "http://h/%c3%89%c3%89%c3%89", "http://h/%c3%89%c3%89%c3%89"},
      {"http://h///", "http://h/", "http://h///"},
  };
  for (const auto &c : cases) {
    EXPECT_EQ(Normalised(c.text, 1), c.full) << c.text;
    EXPECT_EQ(Normalised(c.text, 0), c.light) << c.text;
  }
}

TEST(UrlNormalize, Latin1LowerCasing) {
  // Built by hand: the parser escapes high bytes, but records may carry them.
  Url url, out;
  ASSERT_EQ(URLParse("http://h/", url.get(), nullptr, 1), 1);
  std::string path = "/";
  for (int c = 0x20; c < 0x100; ++c)
    if (c != '/' && c != '.') path += static_cast<char>(c);
  url->u_path.count = 0;
  ArrayGrowExact(url->u_path, static_cast<uint32_t>(path.size() + 1));
  memcpy(url->u_path.elements, path.c_str(), path.size() + 1);
  url->u_path.count = static_cast<uint32_t>(path.size() + 1);
  URLNormalize(out.get(), url.get());
  std::string lowered = Text(out->u_path);
  ASSERT_EQ(lowered.size(), path.size());
  for (size_t i = 0; i < path.size(); ++i) {
    unsigned c = static_cast<unsigned char>(path[i]);
    bool upper = (c >= 'A' && c <= 'Z') || (c >= 0xC0 && c <= 0xDE && c != 0xD7);
    EXPECT_EQ(static_cast<unsigned char>(lowered[i]), upper ? c + 0x20 : c) << std::hex << c;
  }
}

TEST(UrlNormalize, OtherSchemesAreCopied) {
  Url mail, out;
  URLInit(mail.get());
  mail->u_scheme = SCHEME_MAILTO;
  for (UByteArray *a : {&mail->u_host, &mail->u_user, &mail->u_path, &mail->u_query, &mail->u_fragment})
    ArrayAppend(*a, '\0');
  ArrayAppend(mail->u_fragment, '\0');
  URLNormalize(out.get(), mail.get());
  EXPECT_EQ(out->u_scheme, SCHEME_MAILTO);
  EXPECT_EQ(out->u_fragment.count, 2u);
  EXPECT_EQ(out->u_user.count, 1u);
}

void NormaliseBrokenPath() {
  Url a, b;
  URLParse("http://h/", a.get(), nullptr, 1);
  a->u_path.elements[0] = 'x';
  URLNormalize(b.get(), a.get());
}

void NormaliseBrokenQuery() {
  Url a, b;
  URLParse("http://h/?q", a.get(), nullptr, 1);
  a->u_query.elements[0] = 'x';
  URLNormalize(b.get(), a.get());
}

TEST(UrlNormalize, BrokenSourcesAreAssertions) {
  EXPECT_DEATH(NormaliseBrokenPath(), "ArrayNth\\(src->u_path, 0\\) == '/'");
  EXPECT_DEATH(NormaliseBrokenQuery(), "ArrayNth\\(src->u_query, 0\\) == '\\?'");
}

// ---- fingerprints ------------------------------------------------------------------

// One bit at a time: the bit leaving the bottom is reduced by the polynomial
// (shifted, as the bit moves down), the data bit enters at the top.
uint64_t ReferenceExtend(uint64_t value, const unsigned char *p, size_t n) {
  for (size_t i = 0; i < n; ++i) {
    for (int bit = 0; bit < 8; ++bit) {
      uint64_t in = (p[i] >> bit) & 1;
      uint64_t out = value & 1;
      value = (value >> 1) | (in << 63);
      if (out) value ^= FINGERPRINT_POLY >> 1;
    }
  }
  return (value & 1) ? value ^ FINGERPRINT_POLY : value;
}

TEST(Fingerprint, MatchesBitByBitReference) {
  FingerprintInit();
  FingerprintInit();  // a second call changes nothing
  std::mt19937_64 random(7);
  std::vector<unsigned char> buffer(200 + 16);
  for (auto &b : buffer) b = static_cast<unsigned char>(random());
  for (size_t offset = 0; offset < 16; ++offset) {
    for (uint32_t length = 0; length <= 200; ++length) {
      const unsigned char *p = buffer.data() + offset;
      ASSERT_EQ(Fingerprint(p, length), ReferenceExtend(FINGERPRINT_SEED, p, length))
          << "offset " << offset << " length " << length;
      uint64_t start = random();
      ASSERT_EQ(FingerprintExtend(start, p, length), ReferenceExtend(start, p, length));
    }
  }
  EXPECT_EQ(Fingerprint("", 0), FINGERPRINT_SEED);
}

TEST(Fingerprint, TwoCallsEqualOne) {
  std::mt19937_64 random(11);
  std::vector<unsigned char> data(4096);
  for (auto &b : data) b = static_cast<unsigned char>(random());
  for (int trial = 0; trial < 2000; ++trial) {
    uint32_t length = random() % data.size();
    uint32_t split = length ? random() % (length + 1) : 0;
    uint32_t start = random() % (data.size() - length + 1);
    const unsigned char *p = data.data() + start;
    ASSERT_EQ(FingerprintExtend(Fingerprint(p, split), p + split, length - split), Fingerprint(p, length))
        << length << "/" << split;
  }
}

uint64_t UrlFingerprintOf(const char *text, int normalise) {
  Url url;
  EXPECT_EQ(URLParse(text, url.get(), nullptr, 1), 1) << text;
  return URLFingerprint(url.get(), normalise);
}

uint64_t HostFingerprintOf(const char *text) {
  Url url;
  EXPECT_EQ(URLParse(text, url.get(), nullptr, 1), 1) << text;
  return URLHostFingerprint(url.get());
}

uint64_t FingerprintOf(const std::string &s) { return Fingerprint(s.data(), static_cast<uint32_t>(s.size())); }

TEST(Fingerprint, UrlIdentities) {
  // http leaves its scheme out; other schemes and non-default ports are in.
  EXPECT_EQ(HostFingerprintOf("http://Example.com:80/x"), FingerprintOf("example.com"));
  EXPECT_EQ(HostFingerprintOf("http://example.com:81/x"), FingerprintOf("example.com:81"));
  EXPECT_EQ(HostFingerprintOf("https://example.com/x"), FingerprintOf("https://example.com"));
  EXPECT_EQ(HostFingerprintOf("ftp://[::1]:2121/"), FingerprintOf("ftp://[::1]:2121"));
  EXPECT_EQ(HostFingerprintOf("file:///x"), FingerprintOf("file://"));

  EXPECT_EQ(UrlFingerprintOf("http://h/a/b?c=1", 0), FingerprintOf("h/a/b?c=1"));
  EXPECT_EQ(UrlFingerprintOf("http://h/a/b?", 0), FingerprintOf("h/a/b?"));
  EXPECT_EQ(UrlFingerprintOf("http://h/A/./index.html?", 1), FingerprintOf("h/a"));
  EXPECT_EQ(UrlFingerprintOf("https://h:1/", 1), FingerprintOf("https://h:1/"));

  // User info and fragment never count, normalised or not.
  EXPECT_EQ(UrlFingerprintOf("http://u@h/p#a", 0), UrlFingerprintOf("http://h/p#b", 0));
  EXPECT_EQ(UrlFingerprintOf("http://u@h/p#a", 1), UrlFingerprintOf("http://h/p", 1));
  EXPECT_NE(UrlFingerprintOf("http://h/p", 0), UrlFingerprintOf("http://h/P", 0));
  EXPECT_EQ(UrlFingerprintOf("http://h/p", 1), UrlFingerprintOf("http://H/P/", 1));
  EXPECT_NE(UrlFingerprintOf("http://h/p", 1), UrlFingerprintOf("https://h/p", 1));
}

uint32_t Fnv1(const std::string &s) {
  uint32_t h = 0x811c9dc5u;
  for (unsigned char c : s) h = (h * 16777619u) ^ c;
  return h;
}

TEST(TopDomainHash, NamesAndAddresses) {
  const struct {
    const char *text;
    const char *span;
  } cases[] = {
      {"http://a.b.c.d/", "c.d"},          {"http://www.example.co.uk/", "co.uk"},
      {"http://example.com/", "example.com"}, {"http://localhost/", "localhost"},
      {"http://10.1.2.3/", "10.1"},        {"http://010.001.2.3/", "10.1"},
      {"http://1.2.3.256/", "3.256"},      {"http://[::1]/", "[::1]"},
      {"http://[::ffff:1.2.3.4]/", "[::ffff:1.2"},
  };
  for (const auto &c : cases) {
    Url url;
    ASSERT_EQ(URLParse(c.text, url.get(), nullptr, 1), 1) << c.text;
    EXPECT_EQ(URLTopDomainHash(url.get()), Fnv1(c.span)) << c.text;
  }
  Url file;
  ASSERT_EQ(URLParse("file:///x", file.get(), nullptr, 1), 1);
  EXPECT_EQ(URLTopDomainHash(file.get()), 0x811c9dc5u);
}

// ---- the pool ------------------------------------------------------------------------

TEST(UrlPool, ReusesTheLastReleasedRecord) {
  URLPoolCompact();
  URL *a = URLAcquire();
  EXPECT_EQ(a->u_host.elements, nullptr);  // new records start empty
  ASSERT_EQ(URLParse("http://keep.me/", a, nullptr, 1), 1);
  URL *b = URLAcquire();
  URLRelease(b);
  URLRelease(a);
  URL *again = URLAcquire();
  EXPECT_EQ(again, a);  // last in, first out
  EXPECT_EQ(Text(again->u_host), "keep.me");  // reused records keep their buffers
  URL *next = URLAcquire();
  EXPECT_EQ(next, b);
  URLRelease(next);
  URLRelease(again);
  URLPoolCompact();
}

TEST(UrlPool, ReleaseWithoutAcquireIsAnAssertion) {
  EXPECT_DEATH(URLRelease(URLNew()), "\\(urlPool\\).t.count > 0");
}

TEST(UrlPool, ThreadsShareThePool) {
  const char *texts[] = {"http://a.example/x/./y/../index.html?q=1&", "https://b.example:444/",
                         "ftp://u@c.example/%41", "http://[::1]:8080/a//b"};
  uint64_t expected[4];
  for (int i = 0; i < 4; ++i) expected[i] = UrlFingerprintOf(texts[i], 1);
  std::vector<std::thread> threads;
  std::atomic<int> mismatches{0};
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < 2000; ++i) {
        URL *url = URLAcquire();
        int which = (t + i) % 4;
        if (!URLParse(texts[which], url, nullptr, 1) || URLFingerprint(url, 1) != expected[which])
          ++mismatches;
        URLRelease(url);
      }
    });
  }
  for (auto &thread : threads) thread.join();
  EXPECT_EQ(mismatches.load(), 0);
  URLPoolCompact();
}

}  // namespace
