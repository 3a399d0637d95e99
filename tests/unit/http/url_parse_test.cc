#include <gtest/gtest.h>
#include <libpki/http.h>

#include <cstdlib>
#include <cstring>
#include <string>

#include "fakes/allocator.h"

namespace {

// The outputs start as what no call leaves behind.
struct parsed {
  char mark[1] = {};
  char *copy = mark;
  char *host = mark;
  char *path = mark;
  int code;

  explicit parsed(const char *url) { code = parse_url(url, &copy, &host, &path); }
  ~parsed() {
    if (copy != mark)
      free(copy);
  }
  parsed(const parsed &) = delete;
  parsed &operator=(const parsed &) = delete;
};

void expect_split(const char *url, const char *scheme, const char *host, const char *path) {
  SCOPED_TRACE(url);
  parsed p(url);
  ASSERT_EQ(p.code, 0);
  EXPECT_STREQ(p.copy, scheme);
  EXPECT_STREQ(p.host, host);
  EXPECT_STREQ(p.path, path);
}

void expect_refused(const char *url) {
  SCOPED_TRACE(url);
  parsed p(url);
  EXPECT_EQ(p.code, 45);
  EXPECT_EQ(p.copy, nullptr);
  EXPECT_EQ(p.host, nullptr);
  EXPECT_EQ(p.path, nullptr);
}

}  // namespace

TEST(ParseUrl, SchemeAndHostWithoutPathGiveAnEmptyPath) {
  expect_split("http://ca.example", "http", "ca.example", "");
}

TEST(ParseUrl, HostKeepsItsPortAndPathItsQuery) {
  expect_split("http://ca.example:8080/cgi/ca?op=get&x=1", "http", "ca.example:8080",
               "/cgi/ca?op=get&x=1");
}

TEST(ParseUrl, PortWithoutPathStaysWithTheHost) {
  expect_split("http://ca.example:8080", "http", "ca.example:8080", "");
}

TEST(ParseUrl, PathOfOneSlashIsKept) {
  expect_split("http://ca.example/", "http", "ca.example", "/");
}

TEST(ParseUrl, LaterColonsAndDoubleSlashesBelongToThePath) {
  expect_split("http://ca.example/a://b//c:d", "http", "ca.example", "/a://b//c:d");
}

TEST(ParseUrl, SchemeIsNotChecked) {
  expect_split("https://ca.example/a", "https", "ca.example", "/a");
  expect_split("HTTP://ca.example/a", "HTTP", "ca.example", "/a");
  expect_split("ldap+x://ca.example/a", "ldap+x", "ca.example", "/a");
  expect_split("://ca.example/a", "", "ca.example", "/a");
}

TEST(ParseUrl, EmptyHostIsPassedOn) {
  expect_split("http://", "http", "", "");
  expect_split("http:///a", "http", "", "/a");
}

TEST(ParseUrl, UserInfoAndFragmentArePassedOn) {
  expect_split("http://me:pw@ca.example:1/a#part", "http", "me:pw@ca.example:1", "/a#part");
}

TEST(ParseUrl, OnlyASlashEndsTheHost) {
  expect_split("http://ca.example?a=b#c", "http", "ca.example?a=b#c", "");
  expect_split("http://ca.example?a=/b", "http", "ca.example?a=", "/b");
}

TEST(ParseUrl, BracketedAddressIsPassedOn) {
  expect_split("http://[2001:db8::1]:80/a", "http", "[2001:db8::1]:80", "/a");
}

TEST(ParseUrl, HostAndPathPointIntoTheCopy) {
  const std::string url = "http://ca.example/path";
  parsed p(url.c_str());
  ASSERT_EQ(p.code, 0);
  EXPECT_GT(p.host, p.copy);
  EXPECT_LE(p.host + strlen(p.host), p.copy + url.size());
  EXPECT_GT(p.path, p.host);
  EXPECT_EQ(p.path + strlen(p.path), p.copy + url.size());
}

TEST(ParseUrl, EmptyPathPointsIntoTheCopy) {
  const std::string url = "http://ca.example";
  parsed p(url.c_str());
  ASSERT_EQ(p.code, 0);
  EXPECT_EQ(p.path, p.copy + url.size());
}

TEST(ParseUrl, LongUrlIsKeptWhole) {
  const std::string host(50000, 'h');
  const std::string path = "/" + std::string(100000, 'p');
  expect_split(("http://" + host + path).c_str(), "http", host.c_str(), path.c_str());
}

TEST(ParseUrl, UrlIsNotChanged) {
  char url[] = "http://ca.example:80/a";
  parsed p(url);
  ASSERT_EQ(p.code, 0);
  EXPECT_STREQ(url, "http://ca.example:80/a");
}

TEST(ParseUrl, UrlWithoutColonIsRefused) {
  expect_refused("");
  expect_refused("ca.example/path");
  expect_refused("//ca.example/path");
}

TEST(ParseUrl, ColonWithoutTwoSlashesIsRefused) {
  expect_refused("http:");
  expect_refused("http:/");
  expect_refused("http:/ca.example/path");
  expect_refused("http:x//ca.example/path");
  expect_refused("http:/x/ca.example");
}

TEST(ParseUrl, FirstColonDecides) {
  expect_refused("ca.example:80://x/");
}

TEST(ParseUrl, NullArgumentsAreRefused) {
  char *copy, *host, *path;
  EXPECT_EQ(parse_url(nullptr, &copy, &host, &path), 63);
  EXPECT_EQ(parse_url("http://a/", nullptr, &host, &path), 63);
  EXPECT_EQ(parse_url("http://a/", &copy, nullptr, &path), 63);
  EXPECT_EQ(parse_url("http://a/", &copy, &host, nullptr), 63);
}

TEST(ParseUrl, EveryFailedAllocationGivesOutOfMemoryAndNullOutputs) {
  if (!fake_allocator::available())
    GTEST_SKIP() << "the allocator cannot be replaced in this build";
  char mark[1] = {};
  char *copy = mark, *host = mark, *path = mark;
  int code = -1;
  size_t failures = fake_allocator::sweep(
      [&] {
        code = parse_url("http://ca.example/path", &copy, &host, &path);
        if (code == 0)
          free(copy);
      },
      [&](size_t) {
        EXPECT_EQ(code, 2);
        EXPECT_EQ(copy, nullptr);
        EXPECT_EQ(host, nullptr);
        EXPECT_EQ(path, nullptr);
      });
  EXPECT_GT(failures, 0u);
  EXPECT_EQ(code, 0);
}
