// Path text helpers, as tables of cases.
#include <gtest/gtest.h>

#include <string>

#include "runtime/FXPath.h"

namespace {

TEST(FXPathTest, SplitParentPath) {
  // path, parent, name: a trailing delimiter is ignored, repeated ones collapse
  // between parent and name, a relative path keeps no leading "/".
  const char* cases[][3] = {
      {"/a/b", "/a", "b"},   {"/a", "/", "a"},         {"/", "", ""},          {"/y/a/", "/y", "a"},
      {"/y/a///", "/y", "a"}, {"", "", ""},            {"a", "", "a"},         {"a/", "", "a"},
      {"a/b", "a", "b"},     {"a/b/c", "a/b", "c"},    {"/a//b", "/a", "b"},   {"//a//b", "//a", "b"},
      {"//a", "/", "a"},     {"//", "", ""},           {"/a b/c d", "/a b", "c d"}};
  for (const auto& c : cases) {
    std::string parent = "stale", name = "stale";
    EXPECT_TRUE(FXPath::SplitParentPath(c[0], parent, name).IsSuccess());
    EXPECT_EQ(parent + "|" + name, std::string(c[1]) + "|" + c[2]) << "path \"" << c[0] << "\"";
  }
  // The path may be the same object as either output.
  std::string path = "/p/q/r", other;
  FXPath::SplitParentPath(path, path, other);
  EXPECT_EQ(path + "|" + other, "/p/q|r");
  FXPath::SplitParentPath(path, other, path);
  EXPECT_EQ(other + "|" + path, "/p|q");
}

TEST(FXPathTest, AppendTrailingDelimiterAndAppend) {
  const char* trailing[][2] = {{"", "/"}, {"a", "a/"}, {"a/", "a/"}, {"/", "/"}, {"/x/y", "/x/y/"}};
  for (const auto& c : trailing) {
    std::string text = c[0];
    EXPECT_TRUE(FXPath::AppendTrailingDelimiter(text).IsSuccess());
    EXPECT_EQ(text, c[1]) << "text \"" << c[0] << "\"";
  }
  const char* joins[][3] = {{"/x/", "a/b", "/x/a/b"}, {"/x", "a", "/x/a"},     {"", "a/b", "a/b"},
                            {"/x", "", "/x"},         {"/x/", "", "/x/"},      {"/", "a", "/a"},
                            {"/x//", "//a", "/x/a"},  {"/x", "/a/", "/x/a/"}, {"rel", "b", "rel/b"}};
  for (const auto& c : joins) {
    std::string path = c[0];
    EXPECT_TRUE(FXPath::Append(path, c[1], 0).IsSuccess());
    EXPECT_EQ(path, c[2]) << "\"" << c[0] << "\" + \"" << c[1] << "\"";
  }
  std::string self = "/s";
  FXPath::Append(self, self, 0);
  EXPECT_EQ(self, "/s/s");
  std::string untouched = "/x";
  EXPECT_EQ(FXPath::Append(untouched, "a", 1).GetCode(), EINVAL);
  EXPECT_EQ(untouched, "/x");
}

}  // namespace
