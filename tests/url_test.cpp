// URLs: parsing, reference resolution, printing, normalisation, fingerprints,
// top-domain hashes and the url pool.
#include <atomic>
#include <cstring>
#include <random>
#include <thread>
#include <vector>

#include "kz/error.h"
#include "kz/url.h"
#include "test_support.h"

namespace {

std::string Text(const UByteArray &a) {
  return a.count ? std::string(reinterpret_cast<const char *>(a.elements), a.count - 1) : "<none>";
}

struct Url : URL {  // frees its buffers at the end of the scope
  explicit Url(const char *text = nullptr) {
    URLInit(this);
    if (text) {
      EXPECT_EQ(URLParse(text, this, nullptr, 1), 1) << text << ": " << KZErrorMessage();
    }
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
  return std::to_string(u.u_scheme) + "|" + Text(u.u_user) + "|" + Text(u.u_host) + "|" + std::to_string(u.u_port) +
         "|" + Text(u.u_path) + "|" + Text(u.u_query) + "|" + Text(u.u_fragment);
}

// A text, what it resolves to (the printed form with the fragment appended, or
// "!<error message>", raised from "kzlib/url") and the parse flags.
struct Case {
  std::string text, expect;
  int acceptQuery = 1, strict = 1, eightBit = 0;
};

void ExpectResolved(const std::vector<Case> &cases, const URL *base) {
  for (const Case &c : cases) {
    Url url;
    uint32_t line = 0;
    KZErrorClear();
    const bool parsed = URLParse3(c.text.c_str(), &url, base, c.acceptQuery, c.strict, c.eightBit);
    if (parsed && url.u_scheme != SCHEME_FILE) {
      EXPECT_TRUE(URLIsValid(&url)) << c.text;
    }
    if (!parsed) {
      EXPECT_EQ(KZErrorCode(), 0x200000000ull) << c.text;
      EXPECT_STREQ(KZErrorLocation(&line), "kzlib/url") << c.text;
    }
    EXPECT_EQ(parsed ? Print(&url) + Text(url.u_fragment) : "!" + std::string(KZErrorMessage()), c.expect) << c.text;
  }
}

uint64_t FingerprintOf(const std::string &s) { return Fingerprint(s.data(), static_cast<uint32_t>(s.size())); }
enum Number { kWhole, kNormalised, kHost, kTopDomain };
uint64_t UrlNumber(const char *text, Number number) {
  Url url(text);
  return number == kHost        ? URLHostFingerprint(&url)
         : number == kTopDomain ? URLTopDomainHash(&url)
                                : URLFingerprint(&url, number);
}

TEST(UrlSchemes, TableLookupAndAssertion) {
  std::string all;
  for (int32_t i = 0; i < SCHEME_NUM; ++i) all += URLSchemeName(i) + (":" + std::to_string(URLSchemePort(i))) + " ";
  EXPECT_EQ(all, "http:80 https:443 ftp:21 file:0 mailto:0 news:119 ");
  int32_t found = -1;
  EXPECT_EQ(URLParseScheme("HTTPS", &found), 1);
  EXPECT_EQ(found, SCHEME_HTTPS);
  for (const char *name : {"htt", "httpx", "", "http:"}) EXPECT_EQ(URLParseScheme(name, &found), 0) << name;
  EXPECT_DEATH(URLSchemeName(SCHEME_NUM), "scheme < SCHEME_NUM");
}

TEST(UrlParse, StoredComponents) {
  const char *cases[][2] = {{"HTTP://Alpha.Beta.GAMMA", "0||alpha.beta.gamma|80|/||"},
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
                            {"http://a b\"<>%zz@h/", "0|a%20b%22%3c%3e%zz|h|80|/||"}};
  for (const auto &c : cases) {
    Url url(c[0]);
    EXPECT_EQ(Stored(url), c[1]) << c[0];
    EXPECT_EQ(URLIsValid(&url), url.u_scheme != SCHEME_FILE) << c[0];  // "file" has an empty host
  }
}

TEST(UrlParse, ErrorsAndLimits) {
  const std::string label(255, 'a');
  ExpectResolved({{"javascript:x", "!unsupported scheme"},
                  {"x", "!relative url without base"},
                  {"//h/", "!relative url without base"},
                  {"mailto:x", "!invalid scheme"},
                  {"news://h/", "!invalid scheme"},
                  {"http:/x", "!missing authority"},
                  {"file:/tmp", "!missing authority"},
                  {"http://host:0/", "!invalid authority"},
                  {"http://host:65536/", "!invalid authority"},
                  {"http://host:99999999999/", "!invalid authority"},
                  {"http://host:8o/", "!invalid authority"},
                  {"http://a..b/", "!invalid authority"},
                  {"http://-a.b/", "!invalid authority"},
                  {"http://a._b/", "!invalid authority"},
                  {"http:///", "!invalid authority"},
                  {"http://[g::1]/", "!invalid authority"},
                  {"http://[::1]x/", "!invalid authority"},
                  {"http://[::1/", "!invalid authority"},
                  {"http://[]/", "!invalid authority"},
                  {"http://a[::1]/", "!invalid authority"},
                  {"http://[::-1]/", "!invalid authority"},
                  {"http://a%41/", "!invalid authority"},
                  {"http://h\xC3\xA9/", "!invalid authority"},
                  {"http://[1:2:3:4:5:6:7:8:]/", "!invalid authority"},
                  {"http://[1:2:3:4:5:6:7:8]/", "http://[1:2:3:4:5:6:7:8]/"},
                  {"http://a" + label + ".b/", "!invalid authority"},
                  {"http://" + label + ".b/", "http://" + label + ".b/"},
                  {"http://b.a" + label + "/", "!invalid authority"},
                  {"http://h/a%4", "!invalid absolute path"},
                  {"http://h/a%4g", "!invalid absolute path"},
                  {"http://h/a\"b", "!invalid absolute path"},
                  {"http://h/a\tb", "!invalid absolute path"},
                  {"http://h/?a%zz", "!invalid query"},
                  {"http://h/#a#b", "!invalid fragment"},
                  {"http://h/p?x", "!invalid query", 0},
                  {"http://h/p#x", "http://h/p#x", 0},
                  // Eight-bit host bytes pass through only in names.
                  {"http://\xC3\x89.DE/", "http://\xC3\x89.de/", 1, 1, 1},
                  {"http://[::\xC3]/", "!invalid authority", 1, 1, 1},
                  {"http://1.2.3.04\xC3/", "http://1.2.3.04\xC3/", 1, 1, 1}},
                 nullptr);  // no dotted quad
}

// The reference resolution examples of RFC 3986, section 5.4. Where the
// library differs from the RFC, the RFC's result is in the comment.
TEST(UrlResolve, Rfc3986Examples) {
  Url base("http://a/b/c/d;p?q");
  ExpectResolved(
      {                                 // Normal examples.
       {"g:h", "!unsupported scheme"},  // RFC: "g:h" (only six schemes are known)
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
       {"../../../g", "!invalid relative path"},     // RFC: "http://a/g" (strict by default)
       {"../../../../g", "!invalid relative path"},  // RFC: "http://a/g"
       {"../../../g", "http://a/g", 1, 0},           // without strict dot segments ".." stops at the root
       {"/./g", "http://a/./g"},                     // RFC: "http://a/g" (absolute paths are taken as written)
       {"/../g", "http://a/../g"},                   // RFC: "http://a/g"
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
       {"http:g", "!missing authority"}},
      &base);  // RFC: "http:g" (strict) or "http://a/b/c/g"
}

TEST(UrlResolve, LibraryRules) {
  Url base("http://h/a/b/c?q#f");
  ExpectResolved({{"#g", "http://h/a/b/c?q#g"},
                  {"d/.", "http://h/a/b/d"},
                  {"d/..", "http://h/a/b"},  // no trailing "/"
                  {"d//e", "http://h/a/b/d//e"},
                  {"d%2e%41 x", "http://h/a/b/d.A%20x"},
                  {"//u@other:81", "http://u@other:81/"},
                  {"d?q#a#b", "!invalid fragment"},
                  {"d\"", "!invalid relative path"},
                  {"x/%4", "!invalid relative path"},
                  {"?y", "!invalid query", 0},
                  {"../..", "http://h/", 1, 0}},
                 &base);
  // The base's own dot segments are resolved; ".." above its root always fails.
  Url dotted("ftp://u@h:2121/a/./b/../c/."), above("http://h/../x"), mail;
  ExpectResolved({{"d", "ftp://u@h:2121/a/c/d"}}, &dotted);
  ExpectResolved({{"d", "!invalid relative path", 1, 0}}, &above);
  // A base without a hierarchy is ignored; a record resolves against itself.
  mail.u_scheme = SCHEME_MAILTO;
  ExpectResolved({{"d", "!relative url without base"}}, &mail);
  Url self("http://h/a/b?q");
  ASSERT_EQ(URLParse("../c#f", &self, &self, 1), 1);
  EXPECT_EQ(Print(&self), "http://h/c");
}

TEST(UrlParse, AbsolutePathOnly) {
  Url url;
  EXPECT_EQ(URLParseAbsolutePath("/a b/%41", &url) ? Text(url.u_path) : "failed", "/a%20b/A");
  EXPECT_EQ(URLParseAbsolutePath("", &url) ? Text(url.u_path) : "failed", "/");
  KZErrorClear();
  for (const char *bad : {"/a?b", "/a#b", "a", "/a%", "/<"}) EXPECT_EQ(URLParseAbsolutePath(bad, &url), 0) << bad;
  EXPECT_EQ(KZErrorCode(), 0u);
}

TEST(UrlPrint, FormsSizesAndRoundTrips) {
  const char *cases[][2] = {{"http://host:80/", "http://host/"},
                            {"http://host:8080/", "http://host:8080/"},
                            {"https://u@h:1/p?q#f", "https://u@h:1/p?q"},
                            {"ftp://h:65535/", "ftp://h:65535/"},
                            {"file:///x", "file:///x"},
                            {"file://h:9/x", "file://h:9/x"},
                            {"http://u%20x:p@h:81/a/%2f/b;c?d=%26&e", "http://u%20x:p@h:81/a/%2f/b;c?d=%26&e"}};
  for (const auto &c : cases) {
    Url url(c[0]), again(c[1]);
    char buffer[64];
    EXPECT_EQ(URLPrintBytes(buffer, &url), strlen(c[1]));
    EXPECT_STREQ(buffer, c[1]);
    EXPECT_EQ(Print(&url), c[1]);
    EXPECT_EQ(Print(&again), c[1]);
  }
  // URLPrint writes from the start and keeps a large enough array.
  Url url("http://example.com/a/long/enough/path?with=query"), shorter("http://e.com/");
  kztest::Scoped<UByteArray> out;
  const unsigned char *first = (URLPrint(&out, &url), out.elements);
  EXPECT_STREQ(URLPrint(&out, &shorter), "http://e.com/");
  EXPECT_EQ(out.elements, first);
}

TEST(UrlRecords, CopyValidityAndSimpleHttp) {
  Url a("https://u@h:9/p?q#f"), b, normalised, empty;
  URLCopy(&b, &a);
  ASSERT_EQ(URLParse("http://other/", &a, nullptr, 1), 1);
  EXPECT_EQ(Stored(b), "1|u|h|9|/p|?q|#f");
  EXPECT_EQ(URLIsSimpleHTTP(&a), 1);
  EXPECT_EQ(URLIsSimpleHTTP(&b), 0);
  URLNormalize(&normalised, &b);
  EXPECT_EQ(URLIsValid(&normalised), 1);  // zero-length user info and fragment mean none
  EXPECT_EQ(URLIsValid(&empty), 0);
  // One byte of "http://h/p?q#f" overwritten with 'x' (-1: the host's NUL), under another scheme;
  // a scheme without a hierarchy needs no "/" before the path.
  const struct {
    UByteArray URL::*array;
    int at, scheme, valid;
  } edits[] = {{&URL::u_query, 0, SCHEME_HTTP, 0},  {&URL::u_fragment, 0, SCHEME_HTTP, 0},
               {&URL::u_path, 0, SCHEME_HTTP, 0},   {&URL::u_host, -1, SCHEME_MAILTO, 0},
               {&URL::u_path, 0, SCHEME_MAILTO, 1}, {&URL::u_path, 0, -1, 0}};
  for (const auto &e : edits) {
    Url url("http://h/p?q#f");
    UByteArray &array = url.*e.array;
    array.elements[e.at < 0 ? array.count - 1 : e.at] = 'x';
    url.u_scheme = e.scheme;
    EXPECT_EQ(URLIsValid(&url), e.valid) << e.scheme;
  }
}

TEST(UrlNormalize, Rules) {
  const char *cases[][3] = {
      // text, full, light
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
      {"HTTP://Example.COM:80/a/./b/../c?x=1", "http://example.com/a/c?x=1", "http://example.com/a/c?x=1"}};
  for (const auto &c : cases)
    for (int full : {1, 0}) {
      Url url(c[0]), out, self(c[0]);
      URLNormalize2(&out, &url, full);
      EXPECT_EQ(out.u_fragment.count, 0u);
      EXPECT_EQ(Print(&out), c[full ? 1 : 2]) << c[0] << " full " << full;
      // Into itself, through both entry points: the same record as into another one.
      full ? URLNormalize(&self, &self) : URLNormalize2(&self, &self, 0);
      EXPECT_EQ(Stored(self), Stored(out)) << c[0] << " in place, full " << full;
    }
}

TEST(UrlNormalize, Latin1CasingOtherSchemesAndBrokenSources) {
  // Only records built by hand carry raw high bytes (the parser escapes them).
  Url url("http://h/"), out, mail("http://h/p#f");
  const char path[] = "/AZ\xC0\xD6\xD7\xD8\xDE\xDF\xFF";
  ArrayGrowExact(url.u_path, sizeof path);
  memcpy(url.u_path.elements, path, url.u_path.count = sizeof path);
  URLNormalize(&out, &url);
  EXPECT_EQ(Text(out.u_path), "/az\xE0\xF6\xD7\xF8\xFE\xDF\xFF");
  mail.u_scheme = SCHEME_MAILTO;
  URLNormalize(&out, &mail);  // copied unchanged: the fragment stays
  EXPECT_EQ(Text(out.u_fragment), "#f");
  URLNormalize(&mail, &mail);
  EXPECT_EQ(Stored(mail), Stored(out));
  EXPECT_DEATH((url.u_path.elements[0] = 'x', URLNormalize(&out, &url)), "ArrayNth\\(src->u_path, 0\\) == '/'");
  EXPECT_DEATH((url.u_query.elements[0] = 'x', URLNormalize(&out, &url)), "ArrayNth\\(src->u_query, 0\\) == '\\?'");
}

// One bit at a time: the bit leaving the bottom is reduced by the polynomial
// (shifted, as the bit moves down), the data bit enters at the top.
uint64_t ReferenceExtend(uint64_t value, const unsigned char *p, size_t n) {
  for (size_t bit = 0; bit < 8 * n; ++bit) {  // low bits of each byte first
    const uint64_t out = value & 1;
    value = (value >> 1) | (uint64_t((p[bit / 8] >> bit % 8) & 1) << 63);
    if (out) value ^= FINGERPRINT_POLY >> 1;
  }
  return (value & 1) ? value ^ FINGERPRINT_POLY : value;
}

TEST(Fingerprint, MatchesBitByBitReferenceAndChunks) {
  FingerprintInit();
  std::mt19937_64 random(7);
  std::vector<unsigned char> data(4096);
  for (auto &b : data) b = static_cast<unsigned char>(random());
  for (size_t offset = 0; offset < 16; ++offset)
    for (uint32_t length = 0; length <= 200; ++length) {
      const unsigned char *p = data.data() + offset;
      const uint64_t start = random();
      ASSERT_EQ(Fingerprint(p, length), ReferenceExtend(FINGERPRINT_SEED, p, length)) << offset << "/" << length;
      ASSERT_EQ(FingerprintExtend(start, p, length), ReferenceExtend(start, p, length));
    }
  // Continuing a fingerprint over more bytes equals one call over all of them.
  for (int trial = 0; trial < 2000; ++trial) {
    uint32_t length = random() % data.size(), split = random() % (length + 1);
    const unsigned char *p = data.data() + random() % (data.size() - length + 1);
    ASSERT_EQ(FingerprintExtend(Fingerprint(p, split), p + split, length - split), Fingerprint(p, length));
  }
}

TEST(Fingerprint, UrlIdentities) {
  const struct {
    const char *url;
    Number number;
    const char *text;
  } cases[] = {// http leaves its scheme out; other schemes and non-default ports are in.
               {"http://Example.com:80/x", kHost, "example.com"},
               {"http://example.com:81/x", kHost, "example.com:81"},
               {"ftp://[::1]:2121/", kHost, "ftp://[::1]:2121"},
               {"file:///x", kHost, "file://"},
               {"http://h/a/b?c=1", kWhole, "h/a/b?c=1"},
               {"http://h/a/b?", kWhole, "h/a/b?"},
               {"http://h/A/./index.html?", kNormalised, "h/a"},
               {"https://h:1/", kNormalised, "https://h:1/"},
               // User info and fragment never count.
               {"http://u@h/P#a", kWhole, "h/P"},
               {"http://u@H/P/#a", kNormalised, "h/p"}};
  for (const auto &c : cases) EXPECT_EQ(UrlNumber(c.url, c.number), FingerprintOf(c.text)) << c.url;
}

TEST(TopDomainHash, NamesAndAddresses) {
  auto fnv1 = [](const std::string &s, uint32_t h = 0x811c9dc5u) {
    for (unsigned char c : s) h = (h * 16777619u) ^ c;
    return h;
  };
  const char *cases[][2] = {{"http://a.b.c.d/", "c.d"},
                            {"http://example.com/", "example.com"},
                            {"http://localhost/", "localhost"},
                            {"http://010.001.2.3/", "10.1"},
                            {"http://1.2.3.256/", "3.256"},
                            {"http://[::1]/", "[::1]"},
                            {"http://[::ffff:1.2.3.4]/", "[::ffff:1.2"},
                            {"file:///x", ""}};
  for (const auto &c : cases) EXPECT_EQ(UrlNumber(c[0], kTopDomain), fnv1(c[1])) << c[0];
}

TEST(UrlPool, LastReleasedFirstAndKeptBuffers) {
  URLPoolCompact();
  URL *a = URLAcquire(), *b = URLAcquire();
  EXPECT_EQ(a->u_host.elements, nullptr);  // new records start empty
  ASSERT_EQ(URLParse("http://keep.me/", a, nullptr, 1), 1);
  URLRelease(b), URLRelease(a);
  EXPECT_EQ(URLAcquire(), a);  // the last released comes back first, with its buffers
  EXPECT_EQ(Text(a->u_host), "keep.me");
  EXPECT_EQ(URLAcquire(), b);
  URLRelease(b), URLRelease(a);
  URLPoolCompact();
  EXPECT_DEATH(URLRelease(URLNew()), "\\(urlPool\\).t.count > 0");
}

TEST(UrlPool, ThreadsShareThePool) {
  const char *texts[] = {"http://a.example/x/./y/../index.html?q=1&", "https://b.example:444/", "ftp://u@c.example/%41",
                         "http://[::1]:8080/a//b"};
  std::atomic<int> mismatches{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t)
    threads.emplace_back([&, t] {
      for (int i = 0; i < 2000; ++i) {
        URL *url = URLAcquire();
        const char *text = texts[(t + i) % 4];
        mismatches += !URLParse(text, url, nullptr, 1) || URLFingerprint(url, 1) != UrlNumber(text, kNormalised);
        URLRelease(url);
      }
    });
  for (auto &thread : threads) thread.join();
  EXPECT_EQ(mismatches.load(), 0);
  URLPoolCompact();
}

}  // namespace
