// URLParse3 on any bytes, with and without a base, every flag combination.
//
// Input: the first byte holds the flags (accept query, strict, 8-bit host,
// use a base); with a base, the text before the first newline is the base and
// the rest the reference. Checked after every successful parse:
//   - URLIsValid holds (a "file" URL may have an empty host);
//   - printing and parsing the print again gives the same print, except that
//     a dotted quad kept as a name because of its trailing dot ("01.2.3.4.")
//     is re-printed canonically the second time;
//   - URLFingerprint(url, 1) is the fingerprint of the normalised print
//     (without "http://" for http), tying fingerprints to printing;
//   - URLNormalize is idempotent, except where its own rules leave more work
//     for a second pass: a lone "?" left by trimming "&" (dropped only by the
//     full rule), and a default document exposed by removing the trailing "/".
//     Normalisation still reaches a fixed point within three more passes;
//   - normalising a record into itself (full or not) stores what normalising
//     it into another record does.
// Failures must leave a record URLFree can release (the leak checker sees the
// rest).

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "kz/error.h"
#include "kz/url.h"

namespace {

void Require(bool condition, const char *what, const std::string &text) {
  if (!condition) {
    std::fprintf(stderr, "property failed: %s (text \"%s\")\n", what, text.c_str());
    std::abort();
  }
}

std::string Print(const URL &url) {
  UByteArray out = {nullptr, 0, 0};
  std::string text = URLPrint(&out, &url);
  ArrayFree(out);
  return text;
}

std::string Component(const UByteArray &a) {
  return a.count ? std::string(reinterpret_cast<const char *>(a.elements), a.count - 1) : std::string();
}

// Every component as stored, the counts of empty ones included.
std::string Stored(const URL &url) {
  std::string all = std::to_string(url.u_scheme) + " " + std::to_string(url.u_port);
  for (const UByteArray *a : {&url.u_user, &url.u_host, &url.u_path, &url.u_query, &url.u_fragment})
    all += " " + std::to_string(a->count) + ":" +
           (a->count ? std::string(reinterpret_cast<const char *>(a->elements), a->count) : "");
  return all;
}

bool IsDottedName(const std::string &host) {
  int dots = 0;
  for (char c : host) {
    if (c == '.')
      ++dots;
    else if (c < '0' || c > '9')
      return false;
  }
  return dots == 3;
}

bool EndsInDefaultDocument(const std::string &path) {
  std::string last = path.substr(path.rfind('/') + 1);
  for (const char *name : {"index.html", "index.htm", "index.asp", "default.htm", "default.asp"})
    if (last == name) return true;
  return false;
}

void CheckParsed(URL &url, int strict, int eightBit, const std::string &text) {
  Require(URLIsValid(&url) || (url.u_scheme == SCHEME_FILE && url.u_host.count == 1), "valid after parse", text);

  std::string printed = Print(url);
  URL again;
  URLInit(&again);
  Require(URLParse3(printed.c_str(), &again, nullptr, 1, strict, eightBit) == 1, "print parses again", text);
  std::string reprinted = Print(again);
  if (reprinted != printed) {
    Require(IsDottedName(Component(url.u_host)) && Component(again.u_path) == Component(url.u_path) &&
                Component(again.u_query) == Component(url.u_query),
            "print, parse, print is stable", text);
  }
  URLFree(&again);

  URL n1, n2;
  URLInit(&n1);
  URLInit(&n2);
  URLNormalize(&n1, &url);
  std::string normalised = Print(n1);
  size_t skip = url.u_scheme == SCHEME_HTTP ? 7 : 0;
  Require(URLFingerprint(&url, 1) == Fingerprint(normalised.data() + skip, uint32_t(normalised.size() - skip)),
          "fingerprint of the normalised print", text);

  URLNormalize(&n2, &n1);
  std::string second = Print(n2);
  bool loneQuery = Component(n1.u_query) == "?";
  bool exposedDocument = n1.u_query.count == 1 && EndsInDefaultDocument(Component(n1.u_path));
  if (!loneQuery && !exposedDocument) Require(second == normalised, "normalisation is idempotent", text);
  std::string previous = second;
  bool fixed = false;
  for (int pass = 0; pass < 3 && !fixed; ++pass) {
    URLNormalize(&n1, &n2);
    URLNormalize(&n2, &n1);
    std::string next = Print(n2);
    fixed = next == previous;
    previous = next;
  }
  Require(fixed, "normalisation reaches a fixed point", text);

  for (int full : {1, 0}) {
    URLNormalize2(&n1, &url, full);
    URLCopy(&n2, &url);
    URLNormalize2(&n2, &n2, full);
    Require(Stored(n2) == Stored(n1), "normalising in place equals normalising into another record", text);
  }
  URLFree(&n1);
  URLFree(&n2);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size < 1) return 0;
  static bool initialised = (FingerprintInit(), true);
  (void)initialised;
  int acceptQuery = data[0] & 1, strict = (data[0] >> 1) & 1, eightBit = (data[0] >> 2) & 1;
  bool useBase = (data[0] >> 3) & 1;
  std::string input(reinterpret_cast<const char *>(data + 1), size - 1);
  input = input.substr(0, input.find('\0'));  // parsers take NUL-terminated text

  URL base, url;
  URLInit(&base);
  URLInit(&url);
  const URL *basePointer = nullptr;
  std::string text = input;
  if (useBase) {
    size_t newline = input.find('\n');
    std::string baseText = input.substr(0, newline);
    text = newline == std::string::npos ? std::string() : input.substr(newline + 1);
    if (URLParse3(baseText.c_str(), &base, nullptr, 1, strict, eightBit)) basePointer = &base;
  }
  KZErrorClear();
  if (URLParse3(text.c_str(), &url, basePointer, acceptQuery, strict, eightBit)) {
    CheckParsed(url, strict, eightBit, text);
  } else {
    Require(KZErrorCode() == 0x200000000ull, "failure records the generic error", text);
  }
  URLFree(&url);
  URLFree(&base);
  return 0;
}
