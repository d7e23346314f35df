// Path text helpers, as tables of cases.
#include <gtest/gtest.h>

#include <string>

#include "runtime/FXPath.h"

namespace {

TEST(FXPathTest, SplitParentPath) {
  struct Case {
    const char* path;
    const char* parent;
    const char* name;
  };
  const Case cases[] = {
      {"/a/b", "/a", "b"},     {"/a", "/", "a"},          {"/", "", ""},
      {"/y/a/", "/y", "a"},    {"/y/a///", "/y", "a"},    {"", "", ""},
      {"a", "", "a"},          {"a/", "", "a"},           {"a/b", "a", "b"},
      {"a/b/c", "a/b", "c"},   {"/a//b", "/a", "b"},      {"//a//b", "//a", "b"},
      {"//a", "/", "a"},       {"//", "", ""},            {"/a b/c d", "/a b", "c d"},
      {"/x/y/z.txt", "/x/y", "z.txt"},
  };
  for (const Case& c : cases) {
    std::string parent = "stale", name = "stale";
    EXPECT_TRUE(FXPath::SplitParentPath(c.path, parent, name).IsSuccess());
    EXPECT_EQ(parent, c.parent) << "path \"" << c.path << "\"";
    EXPECT_EQ(name, c.name) << "path \"" << c.path << "\"";
  }
  // The path may be the same object as either output.
  std::string path = "/p/q/r", name;
  FXPath::SplitParentPath(path, path, name);
  EXPECT_EQ(path, "/p/q");
  EXPECT_EQ(name, "r");
  std::string parent;
  path = "/p/q";
  FXPath::SplitParentPath(path, parent, path);
  EXPECT_EQ(parent, "/p");
  EXPECT_EQ(path, "q");
}

TEST(FXPathTest, AppendTrailingDelimiterAndAppend) {
  const std::pair<const char*, const char*> trailing[] = {
      {"", "/"}, {"a", "a/"}, {"a/", "a/"}, {"/", "/"}, {"/x/y", "/x/y/"}};
  for (const auto& [in, out] : trailing) {
    std::string text = in;
    EXPECT_TRUE(FXPath::AppendTrailingDelimiter(text).IsSuccess());
    EXPECT_EQ(text, out) << "text \"" << in << "\"";
  }

  struct Case {
    const char* path;
    const char* tail;
    const char* joined;
  };
  const Case cases[] = {
      {"/x/", "a/b", "/x/a/b"}, {"/x", "a", "/x/a"},   {"", "a/b", "a/b"},
      {"/x", "", "/x"},         {"/x/", "", "/x/"},    {"/", "a", "/a"},
      {"/x//", "//a", "/x/a"},  {"/x", "/a/", "/x/a/"}, {"rel", "b", "rel/b"},
  };
  for (const Case& c : cases) {
    std::string path = c.path;
    EXPECT_TRUE(FXPath::Append(path, c.tail, 0).IsSuccess());
    EXPECT_EQ(path, c.joined) << "\"" << c.path << "\" + \"" << c.tail << "\"";
  }
  std::string self = "/s";
  FXPath::Append(self, self, 0);
  EXPECT_EQ(self, "/s/s");

  std::string untouched = "/x";
  CKoError error = FXPath::Append(untouched, "a", 1);
  EXPECT_EQ(error.GetCode(), EINVAL);
  EXPECT_EQ(untouched, "/x");
}

}  // namespace
