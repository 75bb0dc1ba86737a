// URLs: parsing, reference resolution, printing, normalisation, fingerprints,
// top-domain hashes and the url pool.
#include <gtest/gtest.h>

#include <atomic>
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
  return a.count ? std::string(reinterpret_cast<const char *>(a.elements), a.count - 1) : "<none>";
}

// A record that frees its buffers at the end of the scope.
struct Url : URL {
  Url() { URLInit(this); }
  explicit Url(const char *text) {
    URLInit(this);
    EXPECT_EQ(URLParse(text, this, nullptr, 1), 1) << text << ": " << KZErrorMessage();
  }
  ~Url() { URLFree(this); }
};

std::string Print(const URL *url) {
  kztest::Scoped<UByteArray> out;
  std::string text = URLPrint(&out, url);
  EXPECT_EQ(out.count, URLPrintSize(url) + 1);
  return text;
}

// "scheme|user|host|port|path|query|fragment" as stored.
std::string Stored(const URL &u) {
  return std::to_string(u.u_scheme) + "|" + Text(u.u_user) + "|" + Text(u.u_host) + "|" +
         std::to_string(u.u_port) + "|" + Text(u.u_path) + "|" + Text(u.u_query) + "|" + Text(u.u_fragment);
}

// The printed form (with the fragment appended) or "error: <message>".
std::string Resolve(const char *text, const URL *base, int acceptQuery = 1, int strict = 1, int eightBit = 0) {
  Url url;
  KZErrorClear();
  if (!URLParse3(text, &url, base, acceptQuery, strict, eightBit)) {
    EXPECT_EQ(KZErrorCode(), 0x200000000ull) << text;
    return std::string("error: ") + KZErrorMessage();
  }
  EXPECT_TRUE(url.u_scheme == SCHEME_FILE || URLIsValid(&url)) << text;
  return Print(&url) + Text(url.u_fragment);
}

TEST(UrlSchemes, TableLookupAndAssertion) {
  const char *names[] = {"http", "https", "ftp", "file", "mailto", "news"};
  const uint32_t ports[] = {80, 443, 21, 0, 0, 119};
  for (int32_t i = 0; i < SCHEME_NUM; ++i) {
    EXPECT_STREQ(URLSchemeName(i), names[i]);
    EXPECT_EQ(URLSchemePort(i), ports[i]);
  }
  int32_t found = -1;
  EXPECT_EQ(URLParseScheme("HTTPS", &found), 1);
  EXPECT_EQ(found, SCHEME_HTTPS);
  for (const char *name : {"htt", "httpx", "", "http:"}) EXPECT_EQ(URLParseScheme(name, &found), 0) << name;
  EXPECT_DEATH(URLSchemeName(SCHEME_NUM), "scheme < SCHEME_NUM");
}

TEST(UrlParse, StoredComponents) {
  const char *cases[][2] = {
      {"HTTP://Alpha.Beta.GAMMA", "0||alpha.beta.gamma|80|/||"},
      {"https://h:8443/p?q#f", "1||h|8443|/p|?q|#f"},
      {"ftp://u:pw@h/", "2|u:pw|h|21|/||"},
      {"http://host:/", "0||host|80|/||"},
      {"http://host:00080/", "0||host|80|/||"},
      {"http://010.001.000.001/", "0||10.1.0.1|80|/||"},
      {"http://1.2.3.256/", "0||1.2.3.256|80|/||"},
      {"http://1.2.3.4./", "0||1.2.3.4|80|/||"},
      {"http://01.2.3.4./", "0||01.2.3.4|80|/||"},
      {"http://1.2.3.4.5/", "0||1.2.3.4.5|80|/||"},
      {"http://a-b_c.d/", "0||a-b_c.d|80|/||"},
      {"http://[::1]:8080/x", "0||[::1]|8080|/x||"},
      {"http://[FE80::A:b]/", "0||[fe80::a:b]|80|/||"},
      {"http://[::ffff:1.2.3.4]/", "0||[::ffff:1.2.3.4]|80|/||"},
      {"file:///tmp/a", "3|||0|/tmp/a||"},
      {"http://h/a%41%2f b", "0||h|80|/aA%2f%20b||"},
      {"http://h/%7e%2E%00%3F", "0||h|80|/~.%00%3f||"},
      {"http://h/\xC3\xA9?\xFF#x y", "0||h|80|/%c3%a9|?%ff|#x%20y"},
      {"http://h/{}|\\^[]`;:@&=+$,!*'()", "0||h|80|/{}|\\^[]`;:@&=+$,!*'()||"},
      {"http://h?a=1/2?b", "0||h|80|/|?a=1/2?b|"},
      {"http://h#", "0||h|80|/||#"},
      {"http://a b\"<>%zz@h/", "0|a%20b%22%3c%3e%zz|h|80|/||"},
  };
  for (const auto &c : cases) {
    Url url(c[0]);
    EXPECT_EQ(Stored(url), c[1]) << c[0];
    EXPECT_EQ(URLIsValid(&url), url.u_scheme != SCHEME_FILE) << c[0];  // "file" has an empty host
  }
}

TEST(UrlParse, Failures) {
  std::string longLabel = "http://" + std::string(256, 'a') + ".b/";
  std::string longFinal = "http://b." + std::string(256, 'a') + "/";
  const char *cases[][2] = {
      {"javascript:x", "unsupported scheme"},     {"x", "relative url without base"},
      {"//h/", "relative url without base"},      {"mailto:x", "invalid scheme"},
      {"news://h/", "invalid scheme"},            {"http:/x", "missing authority"},
      {"file:/tmp", "missing authority"},         {"http://host:0/", "invalid authority"},
      {"http://host:65536/", "invalid authority"}, {"http://host:99999999999/", "invalid authority"},
      {"http://host:8o/", "invalid authority"},   {"http://a..b/", "invalid authority"},
      {"http://-a.b/", "invalid authority"},      {"http://a._b/", "invalid authority"},
      {"http:///", "invalid authority"},          {"http://[g::1]/", "invalid authority"},
      {"http://[::1]x/", "invalid authority"},    {"http://[::1/", "invalid authority"},
      {"http://[]/", "invalid authority"},        {"http://a[::1]/", "invalid authority"},
      {"http://[::-1]/", "invalid authority"},    {"http://a%41/", "invalid authority"},
      {"http://h\xC3\xA9/", "invalid authority"}, {"http://[1:2:3:4:5:6:7:8:]/", "invalid authority"},
      {longLabel.c_str(), "invalid authority"},   {longFinal.c_str(), "invalid authority"},
      {"http://h/a%4", "invalid absolute path"},  {"http://h/a%4g", "invalid absolute path"},
      {"http://h/a\"b", "invalid absolute path"}, {"http://h/a\tb", "invalid absolute path"},
      {"http://h/?a%zz", "invalid query"},        {"http://h/#a#b", "invalid fragment"},
  };
  for (const auto &c : cases) EXPECT_EQ(Resolve(c[0], nullptr), std::string("error: ") + c[1]) << c[0];
  std::string longestLabel = "http://" + std::string(255, 'a') + ".b/";
  EXPECT_EQ(Resolve(longestLabel.c_str(), nullptr), longestLabel);
  EXPECT_EQ(Resolve("http://[1:2:3:4:5:6:7:8]/", nullptr), "http://[1:2:3:4:5:6:7:8]/");  // seven colons
  EXPECT_EQ(Resolve("http://h/p?x", nullptr, 0), "error: invalid query");
  EXPECT_EQ(Resolve("http://h/p#x", nullptr, 0), "http://h/p#x");
  uint32_t line = 0;
  EXPECT_STREQ(KZErrorLocation(&line), "kzlib/url");
}

TEST(UrlParse, EightBitHostBytes) {
  EXPECT_EQ(Resolve("http://\xC3\x89.DE/", nullptr, 1, 1, 1), "http://\xC3\x89.de/");
  EXPECT_EQ(Resolve("http://[::\xC3]/", nullptr, 1, 1, 1), "error: invalid authority");
  EXPECT_EQ(Resolve("http://1.2.3.04\xC3/", nullptr, 1, 1, 1), "http://1.2.3.04\xC3/");  // no dotted quad
}

// The reference resolution examples of RFC 3986, section 5.4. Where the
// library differs from the RFC, the RFC's result is in the comment.
TEST(UrlResolve, Rfc3986Examples) {
  Url base("http://a/b/c/d;p?q");
  const char *cases[][2] = {
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
  for (const auto &c : cases) EXPECT_EQ(Resolve(c[0], &base), c[1]) << c[0];
  // Without strict dot segments ".." stops at the root.
  EXPECT_EQ(Resolve("../../../g", &base, 1, 0), "http://a/g");
}

TEST(UrlResolve, LibraryRules) {
  Url base("http://h/a/b/c?q#f");
  const char *cases[][2] = {
      {"#g", "http://h/a/b/c?q#g"},
      {"d/.", "http://h/a/b/d"},  // a trailing "/." leaves no "/"
      {"d/..", "http://h/a/b"},   // nor does a trailing "/.."
      {"d//e", "http://h/a/b/d//e"},
      {"d%2e%41 x", "http://h/a/b/d.A%20x"},
      {"//u@other:81", "http://u@other:81/"},
      {"d?q#a#b", "error: invalid fragment"},
      {"d\"", "error: invalid relative path"},
      {"x/%4", "error: invalid relative path"},
  };
  for (const auto &c : cases) EXPECT_EQ(Resolve(c[0], &base), c[1]) << c[0];
  EXPECT_EQ(Resolve("?y", &base, 0), "error: invalid query");
  EXPECT_EQ(Resolve("../..", &base, 1, 0), "http://h/");

  // The base's own dot segments are resolved; ".." above its root always fails.
  Url dotted("ftp://u@h:2121/a/./b/../c/.");
  EXPECT_EQ(Resolve("d", &dotted), "ftp://u@h:2121/a/c/d");
  Url above("http://h/../x");
  EXPECT_EQ(Resolve("d", &above, 1, 0), "error: invalid relative path");

  // A base without a hierarchy is ignored; a record resolves against itself.
  Url mail;
  mail.u_scheme = SCHEME_MAILTO;
  EXPECT_EQ(Resolve("d", &mail), "error: relative url without base");
  Url self("http://h/a/b?q");
  ASSERT_EQ(URLParse("../c#f", &self, &self, 1), 1);
  EXPECT_EQ(Print(&self), "http://h/c");
}

TEST(UrlParse, AbsolutePathOnly) {
  Url url;
  EXPECT_EQ(URLParseAbsolutePath("/a b/%41", &url), 1);
  EXPECT_EQ(Text(url.u_path), "/a%20b/A");
  EXPECT_EQ(URLParseAbsolutePath("", &url), 1);
  EXPECT_EQ(Text(url.u_path), "/");
  KZErrorClear();
  for (const char *bad : {"/a?b", "/a#b", "a", "/a%", "/<"}) EXPECT_EQ(URLParseAbsolutePath(bad, &url), 0) << bad;
  EXPECT_EQ(KZErrorCode(), 0u);
}

TEST(UrlPrint, FormsSizesAndRoundTrips) {
  const char *cases[][2] = {
      {"http://host:80/", "http://host/"},         {"http://host:8080/", "http://host:8080/"},
      {"https://u@h:1/p?q#f", "https://u@h:1/p?q"}, {"ftp://h:65535/", "ftp://h:65535/"},
      {"file:///x", "file:///x"},                  {"file://h:9/x", "file://h:9/x"},
      {"http://u%20x:p@h:81/a/%2f/b;c?d=%26&e", "http://u%20x:p@h:81/a/%2f/b;c?d=%26&e"},
  };
  for (const auto &c : cases) {
    Url url(c[0]);
    char buffer[64];
    EXPECT_EQ(URLPrintBytes(buffer, &url), strlen(c[1]));
    EXPECT_STREQ(buffer, c[1]);
    EXPECT_EQ(Print(&url), c[1]);
    Url again(c[1]);
    EXPECT_EQ(Print(&again), c[1]);
  }

  // URLPrint writes from the start and keeps a large enough array.
  Url url("http://example.com/a/long/enough/path?with=query");
  kztest::Scoped<UByteArray> out;
  URLPrint(&out, &url);
  unsigned char *first = out.elements;
  Url shorter("http://e.com/");
  EXPECT_STREQ(URLPrint(&out, &shorter), "http://e.com/");
  EXPECT_EQ(out.elements, first);
}

TEST(UrlRecords, CopyValidityAndSimpleHttp) {
  Url a("https://u@h:9/p?q#f"), b;
  URLCopy(&b, &a);
  ASSERT_EQ(URLParse("http://other/", &a, nullptr, 1), 1);
  EXPECT_EQ(Stored(b), "1|u|h|9|/p|?q|#f");
  EXPECT_EQ(URLIsSimpleHTTP(&a), 1);
  EXPECT_EQ(URLIsSimpleHTTP(&b), 0);

  Url normalised;
  URLNormalize(&normalised, &b);
  EXPECT_EQ(URLIsValid(&normalised), 1);  // zero-length user info and fragment mean none
  Url url("http://h/p?q#f");
  const struct {
    UByteArray URL::*array;
    int scheme;
  } broken[] = {{&URL::u_query, SCHEME_HTTP}, {&URL::u_fragment, SCHEME_HTTP}, {&URL::u_path, SCHEME_HTTP},
                {&URL::u_host, SCHEME_MAILTO}};
  for (const auto &c : broken) {
    Url copy;
    URLCopy(&copy, &url);
    copy.u_scheme = c.scheme;
    UByteArray &array = copy.*c.array;
    array.elements[c.array == &URL::u_host ? array.count - 1 : 0] = 'x';
    EXPECT_EQ(URLIsValid(&copy), 0);
  }
  url.u_scheme = SCHEME_MAILTO;  // no hierarchy: the path need not start with "/"
  url.u_path.elements[0] = 'p';
  EXPECT_EQ(URLIsValid(&url), 1);
  url.u_scheme = -1;
  EXPECT_EQ(URLIsValid(&url), 0);
  Url empty;
  EXPECT_EQ(URLIsValid(&empty), 0);
}

TEST(UrlNormalize, Rules) {
  const char *cases[][3] = {  // text, full, light
      {"http://h/A//B/./C/../index.html?x=1&#f", "http://h/a/b/?x=1", "http://h/A//B/index.html?x=1"},
      {"http://h/A//B/./C/../index.html?#f", "http://h/a/b", "http://h/A//B/index.html?"},
      {"http://u:p@h/", "http://h/", "http://h/"},
      {"http://h/a/b/..", "http://h/a", "http://h/a/"},
      {"http://h/a/b/.", "http://h/a/b", "http://h/a/b/"},
      {"http://h/../../a", "http://h/a", "http://h/a"},
      {"http://h/.a/..b/.../c", "http://h/.a/..b/.../c", "http://h/.a/..b/.../c"},
      {"http://h/a/index.html/index.htm", "http://h/a", "http://h/a/index.html/index.htm"},
      {"http://h/INDEX.HTML", "http://h/", "http://h/INDEX.HTML"},
      {"http://h/x/default.asp?y", "http://h/x/?y", "http://h/x/default.asp?y"},
      {"http://h/x/default.aspx", "http://h/x/default.aspx", "http://h/x/default.aspx"},
      {"http://h/x/?a=1&&", "http://h/x/?a=1", "http://h/x/?a=1"},
      {"http://h/x/?&", "http://h/x/?", "http://h/x/?"},
      {"http://h/x/?", "http://h/x", "http://h/x/?"},
      {"http://h///", "http://h/", "http://h///"},
  };
  for (const auto &c : cases) {
    for (int full : {1, 0}) {
      Url url(c[0]), out;
      URLNormalize2(&out, &url, full);
      EXPECT_EQ(out.u_fragment.count, 0u);
      EXPECT_EQ(Print(&out), c[full ? 1 : 2]) << c[0] << " full " << full;
    }
  }
}

TEST(UrlNormalize, Latin1CasingOtherSchemesAndBrokenSources) {
  // Only records built by hand carry raw high bytes (the parser escapes them).
  Url url("http://h/"), out;
  const char path[] = "/AZ\xC0\xD6\xD7\xD8\xDE\xDF\xFF";
  ArrayGrowExact(url.u_path, sizeof path);
  memcpy(url.u_path.elements, path, sizeof path);
  url.u_path.count = sizeof path;
  URLNormalize(&out, &url);
  EXPECT_EQ(Text(out.u_path), "/az\xE0\xF6\xD7\xF8\xFE\xDF\xFF");

  Url mail("http://h/p#f");
  mail.u_scheme = SCHEME_MAILTO;
  URLNormalize(&out, &mail);  // copied unchanged: the fragment stays
  EXPECT_EQ(Text(out.u_fragment), "#f");

  EXPECT_DEATH(
      {
        url.u_path.elements[0] = 'x';
        URLNormalize(&out, &url);
      },
      "ArrayNth\\(src->u_path, 0\\) == '/'");
  EXPECT_DEATH(
      {
        url.u_query.elements[0] = 'x';
        URLNormalize(&out, &url);
      },
      "ArrayNth\\(src->u_query, 0\\) == '\\?'");
}

// ---- fingerprints ------------------------------------------------------------------

// One bit at a time: the bit leaving the bottom is reduced by the polynomial
// (shifted, as the bit moves down), the data bit enters at the top.
uint64_t ReferenceExtend(uint64_t value, const unsigned char *p, size_t n) {
  for (size_t i = 0; i < n; ++i) {
    for (int bit = 0; bit < 8; ++bit) {
      uint64_t out = value & 1;
      value = (value >> 1) | (uint64_t((p[i] >> bit) & 1) << 63);
      if (out) value ^= FINGERPRINT_POLY >> 1;
    }
  }
  return (value & 1) ? value ^ FINGERPRINT_POLY : value;
}

TEST(Fingerprint, MatchesBitByBitReferenceAndChunks) {
  FingerprintInit();
  std::mt19937_64 random(7);
  std::vector<unsigned char> data(4096);
  for (auto &b : data) b = static_cast<unsigned char>(random());
  for (size_t offset = 0; offset < 16; ++offset) {
    for (uint32_t length = 0; length <= 200; ++length) {
      const unsigned char *p = data.data() + offset;
      uint64_t start = random();
      ASSERT_EQ(Fingerprint(p, length), ReferenceExtend(FINGERPRINT_SEED, p, length)) << offset << "/" << length;
      ASSERT_EQ(FingerprintExtend(start, p, length), ReferenceExtend(start, p, length));
    }
  }
  // Continuing a fingerprint over more bytes equals one call over all of them.
  for (int trial = 0; trial < 2000; ++trial) {
    uint32_t length = random() % data.size();
    uint32_t split = random() % (length + 1);
    const unsigned char *p = data.data() + random() % (data.size() - length + 1);
    ASSERT_EQ(FingerprintExtend(Fingerprint(p, split), p + split, length - split), Fingerprint(p, length));
  }
}

uint64_t FingerprintOf(const std::string &s) { return Fingerprint(s.data(), static_cast<uint32_t>(s.size())); }

TEST(Fingerprint, UrlIdentities) {
  auto host = [](const char *text) {
    Url url(text);
    return URLHostFingerprint(&url);
  };
  auto whole = [](const char *text, int normalise) {
    Url url(text);
    return URLFingerprint(&url, normalise);
  };
  // http leaves its scheme out; other schemes and non-default ports are in.
  EXPECT_EQ(host("http://Example.com:80/x"), FingerprintOf("example.com"));
  EXPECT_EQ(host("http://example.com:81/x"), FingerprintOf("example.com:81"));
  EXPECT_EQ(host("ftp://[::1]:2121/"), FingerprintOf("ftp://[::1]:2121"));
  EXPECT_EQ(host("file:///x"), FingerprintOf("file://"));
  EXPECT_EQ(whole("http://h/a/b?c=1", 0), FingerprintOf("h/a/b?c=1"));
  EXPECT_EQ(whole("http://h/a/b?", 0), FingerprintOf("h/a/b?"));
  EXPECT_EQ(whole("http://h/A/./index.html?", 1), FingerprintOf("h/a"));
  EXPECT_EQ(whole("https://h:1/", 1), FingerprintOf("https://h:1/"));
  // User info and fragment never count.
  EXPECT_EQ(whole("http://u@h/p#a", 0), whole("http://h/p#b", 0));
  EXPECT_EQ(whole("http://u@h/p#a", 1), whole("http://H/P/", 1));
  EXPECT_NE(whole("http://h/p", 0), whole("http://h/P", 0));
}

TEST(TopDomainHash, NamesAndAddresses) {
  auto fnv1 = [](const std::string &s) {
    uint32_t h = 0x811c9dc5u;
    for (unsigned char c : s) h = (h * 16777619u) ^ c;
    return h;
  };
  const char *cases[][2] = {
      {"http://a.b.c.d/", "c.d"},       {"http://example.com/", "example.com"}, {"http://localhost/", "localhost"},
      {"http://010.001.2.3/", "10.1"},  {"http://1.2.3.256/", "3.256"},         {"http://[::1]/", "[::1]"},
      {"http://[::ffff:1.2.3.4]/", "[::ffff:1.2"}, {"file:///x", ""},
  };
  for (const auto &c : cases) {
    Url url(c[0]);
    EXPECT_EQ(URLTopDomainHash(&url), fnv1(c[1])) << c[0];
  }
}

// ---- the pool ------------------------------------------------------------------------

TEST(UrlPool, LastReleasedFirstAndKeptBuffers) {
  URLPoolCompact();
  URL *a = URLAcquire();
  EXPECT_EQ(a->u_host.elements, nullptr);  // new records start empty
  ASSERT_EQ(URLParse("http://keep.me/", a, nullptr, 1), 1);
  URL *b = URLAcquire();
  URLRelease(b);
  URLRelease(a);
  URL *again = URLAcquire();
  EXPECT_EQ(again, a);
  EXPECT_EQ(Text(again->u_host), "keep.me");
  EXPECT_EQ(URLAcquire(), b);
  URLRelease(b);
  URLRelease(again);
  URLPoolCompact();
  EXPECT_DEATH(URLRelease(URLNew()), "\\(urlPool\\).t.count > 0");
}

TEST(UrlPool, ThreadsShareThePool) {
  const char *texts[] = {"http://a.example/x/./y/../index.html?q=1&", "https://b.example:444/",
                         "ftp://u@c.example/%41", "http://[::1]:8080/a//b"};
  uint64_t expected[4];
  for (int i = 0; i < 4; ++i) {
    Url url(texts[i]);
    expected[i] = URLFingerprint(&url, 1);
  }
  std::atomic<int> mismatches{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < 2000; ++i) {
        URL *url = URLAcquire();
        int which = (t + i) % 4;
        if (!URLParse(texts[which], url, nullptr, 1) || URLFingerprint(url, 1) != expected[which]) ++mismatches;
        URLRelease(url);
      }
    });
  }
  for (auto &thread : threads) thread.join();
  EXPECT_EQ(mismatches.load(), 0);
  URLPoolCompact();
}

}  // namespace
