// What comes from outside: names, texts for the shell and the bus, JSON documents. And check values against
// vectors.
#include <gtest/gtest.h>

#include <array>
#include <cstdint>
#include <string>

#include "BSW/BasicFun/Crc.h"
#include "BSW/BasicFun/JsonUtils.h"
#include "BSW/BasicFun/Md5.h"
#include "BSW/BasicFun/ShellRunner.h"
#include "BSW/BasicFun/StringUtils.h"
#include "TempDirectory.h"

TEST(StringUtils, PlainFileNamesStayInTheirDirectory) {
  for (const char* name : {"a.zip", "-rf", "a b", ".hidden", "x;reboot"})
    EXPECT_TRUE(IsPlainFileName(name)) << name;
  for (const char* name : {"", ".", "..", "a/b", "/a", "a..b", "a\nb", "\x1b[2Ja", "a\x7f"})
    EXPECT_FALSE(IsPlainFileName(name)) << name;
  EXPECT_FALSE(IsPlainFileName(std::string("a\0b", 3)));
  EXPECT_TRUE(IsPlainFileName(std::string(255, 'a')));
  EXPECT_FALSE(IsPlainFileName(std::string(256, 'a')));
}

TEST(StringUtils, QuotedWordsReachACommandUnchanged) {
  EXPECT_EQ(ShellQuote("/firmware/a-1_2.zip:=@%+,"), "/firmware/a-1_2.zip:=@%+,");
  const TempDirectory directory;
  for (const std::string word :
       {"", "a b", "it's", "$(reboot)", "`x`\\", "a;b|c&d", "*", "new\nline", "\"", "~"}) {
    const std::string command = "printf %s " + ShellQuote(word) + " > " + directory / "out";
    EXPECT_EQ(RunShell(command.c_str()).exitCode, 0);
    EXPECT_EQ(ReadText(directory / "out"), word);
  }
}

TEST(StringUtils, AcceptsOnlyWellFormedUtf8) {
  for (const char* good :
       {"", "abc", "\xC3\xA9", "\xE2\x82\xAC", "\xF0\x9F\x98\x80", "\xF4\x8F\xBF\xBF", "\xED\x9F\xBF"}) {
    EXPECT_TRUE(IsValidUtf8(good)) << good;
  }
  for (const char* bad : {"\x80", "\xC3", "a\xC0\x80", "\xE0\x9F\xBF", "\xED\xA0\x80", "\xE2\x82",
                          "\xF0\x8F\xBF\xBF", "\xF4\x90\x80\x80", "\xFF", "\xC3z"}) {
    EXPECT_FALSE(IsValidUtf8(bad)) << bad;
  }
  EXPECT_FALSE(IsValidUtf8(std::string("a\0b", 3)));
}

TEST(StringUtils, OutsideTextStaysOneBoundedLineOfTheLog) {
  EXPECT_EQ(Printable("a\n[I] forged\r\t\x1b[2J\x7f\xC3\xA9"), "a [I] forged   [2J \xC3\xA9");
  EXPECT_EQ(Printable("1234", 4), "1234");
  EXPECT_EQ(Printable("12345", 4), "1234...");
  EXPECT_TRUE(IsVersionText("") && IsVersionText(std::string(255, '1')));
  for (const std::string& bad : {std::string("V1\n"), std::string("\xFF"), std::string(256, '1')}) {
    EXPECT_FALSE(IsVersionText(bad)) << bad;
  }
}

TEST(StringUtils, FormatsTextsOfAnyLength) {
  for (const size_t length : {0U, 1023U, 1024U, 100000U}) {
    const std::string text(length, 'y');
    EXPECT_EQ(FormatText("%s:%d", text.c_str(), 7), text + ":7");
  }
}

TEST(JsonUtils, RefusesWhatIsNotExactlyOneModestDocument) {
  Json::Value value;
  std::string error;
  const auto nested = [](size_t depth) { return std::string(depth, '[') + std::string(depth, ']'); };
  EXPECT_TRUE(JsonUtils::Parse(nested(60), value, error)) << error;
  for (const std::string& text :
       {nested(1000), std::string(100000, '['), std::string(R"({"a":1} x)"), std::string(),
        std::string(R"({"a":1}{})"), std::string("{} // comment"), std::string(R"({"a":)"),
        "[" + std::string(JsonUtils::kMaxDocumentBytes, ' ') + "]"}) {
    error.clear();
    EXPECT_FALSE(JsonUtils::Parse(text, value, error)) << text.substr(0, 20);
    EXPECT_NE(error, "");
  }
}

TEST(JsonUtils, AnswersWrongTypesInsteadOfThrowing) {
  Json::Value value;
  std::string error;
  ASSERT_TRUE(JsonUtils::Parse(R"({"text":"t","int":7,"large":5000000000,"list":[]})", value, error));
  std::string text;
  int number = 0;
  EXPECT_TRUE(JsonUtils::GetString(value, "text", text) && text == "t");
  EXPECT_TRUE(JsonUtils::GetInt(value, "int", number) && number == 7);
  for (const char* key : {"text", "large", "list", "missing"})
    EXPECT_FALSE(JsonUtils::GetInt(value, key, number));
  for (const char* key : {"int", "list", "missing"}) EXPECT_FALSE(JsonUtils::GetString(value, key, text));
  EXPECT_FALSE(JsonUtils::GetString(value["list"], "text", text));
  EXPECT_FALSE(JsonUtils::GetInt(Json::Value("text"), "int", number));
}

TEST(JsonUtils, WritesMessagesAsOneLineAndFilesThatReadBack) {
  Json::Value value;
  value["b"] = "\xC3\xA9\n";
  value["a"]["c"] = 1;
  EXPECT_EQ(JsonUtils::ToCompactText(value), "{\"a\":{\"c\":1},\"b\":\"\\u00e9\\n\"}\n");
  const TempDirectory directory;
  Json::Value readBack;
  std::string error;
  for (const bool styled : {false, true}) {
    EXPECT_TRUE(JsonUtils::WriteFileToJson(directory / "file", value, styled));
    EXPECT_TRUE(JsonUtils::ReadFileToJson(directory / "file", readBack, &error)) << error;
    EXPECT_EQ(readBack, value);
  }
  EXPECT_FALSE(JsonUtils::ReadFileToJson(directory / "missing", readBack, &error));
  EXPECT_EQ(error, "No such file or directory");
}

TEST(CheckValues, MatchPublishedVectors) {
  const std::string digits = "123456789";
  const auto* data = reinterpret_cast<const uint8_t*>(digits.data());
  EXPECT_EQ(CRC16_XMODEM(data, digits.size()), 0x31C3);
  EXPECT_EQ(CrcXor(data, digits.size()), 0x31);
  EXPECT_EQ(CRC16_XMODEM(nullptr, 0), 0);

  const TempDirectory directory;
  WriteText(directory / "file", "");
  EXPECT_EQ(md5::MD5(directory / "file"), "d41d8cd98f00b204e9800998ecf8427e");
  WriteText(directory / "file", "message digest");
  EXPECT_EQ(md5::MD5(directory / "file"), "f96b697d7cb7938d525a2f31aaf161d0");
  WriteText(directory / "file", std::string(1'000'000, 'a'));
  EXPECT_EQ(md5::MD5(directory / "file"), "7707d6ae4e027c70eea2a935c2296f21");
  EXPECT_EQ(md5::MD5(directory / "file", [] { return true; }), "");
  EXPECT_EQ(md5::MD5(directory / "missing"), "");
}
