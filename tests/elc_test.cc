// Typed settings from small text files.
#include "velorin/elc"

#include <errno.h>
#include <gmock/gmock.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <ostream>
#include <string>
#include <vector>

#include "support/child.h"
#include "support/private_world.h"

namespace {
bool copies_fail = false;
std::vector<char*>* copies = nullptr;  // those made are noted here
}  // namespace

// Comes before the system library's: memory for a copy can run out.
extern "C" __attribute__((visibility("default"))) char* strndup(const char* text,
                                                                size_t size) noexcept {
  if (copies_fail) {
    errno = ENOMEM;
    return nullptr;
  }
  const size_t length = strnlen(text, size);
  char* const copy = static_cast<char*>(malloc(length + 1));
  if (copy == nullptr) return nullptr;
  memcpy(copy, text, length);
  copy[length] = '\0';
  if (copies != nullptr) copies->push_back(copy);
  return copy;
}

namespace {

using testing::StrEq;

constexpr char kDir[] = "/local/local1/elc/";

elc_entry entry(elc_type type, const char* name) {
  elc_entry e = {};
  e.type = type;
  e.name = name;
  return e;
}

class elcTest : public PrivateWorld {
 protected:
  elcTest() {
    cover("/local/local1");
    mkdir("/local/local1/elc", 0777);
  }
  ~elcTest() override {
    for (char* text : texts_) free(text);
  }

  static void writeFile(const std::string& text, const std::string& name = "svc") {
    std::ofstream(kDir + name + ".elc", std::ios::binary) << text;
  }

  // Reads `text` into the table below; what was returned, or "".
  std::string readText(const std::string& text) {
    writeFile(text);
    copies = &texts_;
    const char* const message = _elc_init("svc", table_, kEntries);
    copies = nullptr;
    return message != nullptr ? message : "";
  }

  std::string failureAt(const std::string& position, const std::string& message) const {
    return std::string(kDir) + "svc.elc:" + position + ": " + message;
  }

  static constexpr unsigned kEntries = 4;
  elc_entry table_[kEntries] = {entry(ELC_UINT, "port"), entry(ELC_BOOL, "on"),
                                entry(ELC_STR, "text"), entry(ELC_INT, "delta")};
  elc_entry& port_ = table_[0];
  elc_entry& on_ = table_[1];
  elc_entry& text_ = table_[2];
  elc_entry& delta_ = table_[3];

 private:
  std::vector<char*> texts_;  // that the reader made; it frees none
};

TEST_F(elcTest, MissingFileLeavesEveryEntryUntouched) {
  port_.value.UINT_type = 80;
  on_.value.BOOL_type = true;
  EXPECT_EQ(_elc_init("svc", table_, kEntries), nullptr);
  for (const elc_entry& e : table_) EXPECT_FALSE(e.is_set);
  EXPECT_EQ(port_.value.UINT_type, 80u);
  EXPECT_TRUE(on_.value.BOOL_type);
}

TEST_F(elcTest, CommentsBlankLinesAndWhiteSpaceAreNothing) {
  EXPECT_EQ(readText("# port 1\n\n \t \n\t# port 2\n   #\n#"), "");
  EXPECT_FALSE(port_.is_set);
}

TEST_F(elcTest, EmptyFileIsNothing) {
  EXPECT_EQ(readText(""), "");
}

TEST_F(elcTest, EachTypeIsReadIntoItsMember) {
  EXPECT_EQ(readText("port 8008\non yes\n  text\tword\n\tdelta -12 \n"), "");
  EXPECT_EQ(port_.value.UINT_type, 8008u);
  EXPECT_TRUE(on_.value.BOOL_type);
  EXPECT_STREQ(text_.value.STR_type, "word");
  EXPECT_EQ(delta_.value.INT_type, -12);
  for (const elc_entry& e : table_) EXPECT_TRUE(e.is_set);
}

TEST_F(elcTest, EntriesThatTheFileDoesNotMentionKeepTheirDefault) {
  delta_.value.INT_type = 5;
  EXPECT_EQ(readText("port 1\n"), "");
  EXPECT_FALSE(delta_.is_set);
  EXPECT_EQ(delta_.value.INT_type, 5);
}

TEST_F(elcTest, MarkOfAnEntryIsNeverCleared) {
  port_.is_set = true;
  EXPECT_EQ(readText("on 1\n"), "");
  EXPECT_TRUE(port_.is_set);
}

TEST_F(elcTest, LastLineOfANameWins) {
  EXPECT_EQ(readText("port 1\nport 2\ntext a\ntext b\n"), "");
  EXPECT_EQ(port_.value.UINT_type, 2u);
  EXPECT_STREQ(text_.value.STR_type, "b");
}

TEST_F(elcTest, FirstOfTwoEntriesOfOneNameIsUsed) {
  elc_entry twice[] = {entry(ELC_UINT, "port"), entry(ELC_UINT, "port")};
  writeFile("port 1\n");
  EXPECT_EQ(_elc_init("svc", twice, 2), nullptr);
  EXPECT_TRUE(twice[0].is_set);
  EXPECT_FALSE(twice[1].is_set);
}

TEST_F(elcTest, NamesAreComparedWholeAndWithCase) {
  EXPECT_EQ(readText("Port 1\n"), failureAt("1:1", "Unknown ELC name"));
  EXPECT_EQ(readText("por 1\n"), failureAt("1:1", "Unknown ELC name"));
  EXPECT_EQ(readText("ports 1\n"), failureAt("1:1", "Unknown ELC name"));
  EXPECT_EQ(readText(" \t PORT 1\n"), failureAt("1:4", "Unknown ELC name"));
}

TEST_F(elcTest, EmptyTableKnowsNoName) {
  writeFile("port 1\n");
  EXPECT_THAT(_elc_init("svc", nullptr, 0), StrEq(failureAt("1:1", "Unknown ELC name")));
}

TEST_F(elcTest, EntryOfAnotherTypeIsPassedOver) {
  elc_entry odd[] = {entry(static_cast<elc_type>(4), "odd"), entry(ELC_UINT, "port")};
  writeFile("odd ?\nport 1\n");
  EXPECT_EQ(_elc_init("svc", odd, 2), nullptr);
  EXPECT_FALSE(odd[0].is_set);
  EXPECT_EQ(odd[1].value.UINT_type, 1u);
}

TEST_F(elcTest, FailureKeepsEarlierLinesAndReadsNoLaterOnes) {
  EXPECT_EQ(readText("port 1\nbad 2\non 1\n"), failureAt("2:1", "Unknown ELC name"));
  EXPECT_TRUE(port_.is_set);
  EXPECT_FALSE(on_.is_set);
}

TEST_F(elcTest, MessageIsOverwrittenByTheNextCall) {
  writeFile("bad 1\n");
  const char* const first = _elc_init("svc", table_, kEntries);
  writeFile("\nbad 1\n");
  const char* const second = _elc_init("svc", table_, kEntries);
  EXPECT_EQ(first, second);
  EXPECT_THAT(second, StrEq(failureAt("2:1", "Unknown ELC name")));
}

// ---- Lines and pieces ----

TEST_F(elcTest, LastLineWithoutValueAndNewlineMissesItsValue) {
  EXPECT_EQ(readText("on 1\nport"), failureAt("2:5", "Missing value"));
}

TEST_F(elcTest, NameBeforeANewlineHasAnEmptyValue) {
  EXPECT_EQ(readText("port\n"), "");
  EXPECT_TRUE(port_.is_set);
  EXPECT_EQ(port_.value.UINT_type, 0u);
}

TEST_F(elcTest, LongLineIsReadAsPiecesEachALineOfItsOwn) {
  // 127 characters, the second piece begins with a name.
  EXPECT_EQ(readText("port 7 " + std::string(120, 'x') + "on yes " + std::string(66, 'y') + "\n"),
            "");
  EXPECT_EQ(port_.value.UINT_type, 7u);
  EXPECT_TRUE(on_.value.BOOL_type);
  EXPECT_EQ(readText("port 7 " + std::string(120, 'x') + "off 1 " + std::string(67, 'y') + "\n"),
            failureAt("2:1", "Unknown ELC name"));
}

TEST_F(elcTest, LineNumbersCountPieces) {
  EXPECT_EQ(readText(std::string(200, ' ') + "\nbad 1\n"), failureAt("3:1", "Unknown ELC name"));
}

TEST_F(elcTest, NameThatFillsAPieceMissesItsValue) {
  EXPECT_EQ(readText(std::string(130, 'n') + " 1\n"), failureAt("1:128", "Missing value"));
}

TEST_F(elcTest, ZeroByteEndsAPiece) {
  EXPECT_EQ(readText(std::string("port 1") + '\0' + "x\non 1\n"), "");
  EXPECT_EQ(port_.value.UINT_type, 1u);
  EXPECT_TRUE(on_.is_set);
}

TEST_F(elcTest, OnlyBlankTabAndNewlineAreWhiteSpace) {
  EXPECT_EQ(readText("port 1\r\n"), failureAt("1:7", "Invalid number"));
  EXPECT_EQ(readText("text a\r\n"), "");
  EXPECT_STREQ(text_.value.STR_type, "a\r");
  EXPECT_EQ(readText("\vport 1\n"), failureAt("1:1", "Unknown ELC name"));
}

// ---- Values ----

struct Value {
  const char* label;
  const char* text;
  uint32_t number;
};
void PrintTo(const Value& value, std::ostream* to) {
  *to << value.label;
}

class elcNumberTest : public elcTest, public testing::WithParamInterface<Value> {};

TEST_P(elcNumberTest, IsReadAlikeForBothTypes) {
  const std::string text = GetParam().text;
  EXPECT_EQ(readText("port " + text + "\ndelta " + text), "");
  EXPECT_EQ(port_.value.UINT_type, GetParam().number);
  EXPECT_EQ(delta_.value.INT_type, static_cast<int32_t>(GetParam().number));
}

INSTANTIATE_TEST_SUITE_P(
    Values, elcNumberTest,
    testing::Values(Value{"Decimal", "42", 42}, Value{"Hexadecimal", "0x1F", 31},
                    Value{"UpperHexadecimal", "0X1f", 31}, Value{"Octal", "017", 15},
                    Value{"Plus", "+5", 5}, Value{"Minus", "-1", 0xffffffff},
                    Value{"Lowest", "-2147483648", 0x80000000},
                    Value{"MinusHexadecimal", "-0x10", 0xfffffff0},
                    Value{"Largest", "4294967295", 0xffffffff},
                    Value{"OneTooMany", "4294967296", 0xffffffff},
                    Value{"FarTooMany", "99999999999999999999999", 0xffffffff},
                    Value{"LargestBelowZero", "-4294967295", 1},
                    Value{"TooFarBelowZero", "-4294967296", 0xffffffff},
                    Value{"FarTooFarBelowZero", "-99999999999999999999999", 0xffffffff},
                    Value{"Nothing", "", 0}, Value{"Blanks", " \t ", 0},
                    Value{"RemarkBehind", "12 # a remark", 12}, Value{"WordBehind", "12\tabc", 12}),
    [](const auto& row) { return std::string(row.param.label); });

TEST_F(elcTest, NumberEndsAtTheEndOfThePieceOrAtWhiteSpaceAlone) {
  EXPECT_EQ(readText("port 12abc\n"), failureAt("1:8", "Invalid number"));
  EXPECT_EQ(readText("port abc\n"), failureAt("1:6", "Invalid number"));
  EXPECT_EQ(readText("delta 12#\n"), failureAt("1:9", "Invalid number"));
  EXPECT_EQ(readText("port 0x\n"), failureAt("1:7", "Invalid number"));
  EXPECT_EQ(readText("port -\n"), failureAt("1:6", "Invalid number"));
  EXPECT_EQ(readText("port 08\n"), failureAt("1:7", "Invalid number"));
  EXPECT_FALSE(port_.is_set);
}

TEST_F(elcTest, WordsOfTruthAreReadInAnyCase) {
  for (const char* yes : {"true", "yes", "1", "YES", "TrUe"}) {
    on_.value.BOOL_type = false;
    EXPECT_EQ(readText(std::string("on ") + yes + "\n"), "") << yes;
    EXPECT_TRUE(on_.value.BOOL_type) << yes;
  }
  for (const char* no : {"false", "no", "0", "NO", "False", "no trailing text counts"}) {
    on_.value.BOOL_type = true;
    EXPECT_EQ(readText(std::string("on\t") + no), "") << no;
    EXPECT_FALSE(on_.value.BOOL_type) << no;
  }
}

TEST_F(elcTest, OtherBooleansAreInvalid) {
  for (const char* other : {"off", "2", "01", "yesyes", "ye", "\"yes\"", "yes#"})
    EXPECT_EQ(readText(std::string("on ") + other + "\n"), failureAt("1:4", "Invalid boolean"));
  EXPECT_EQ(readText("on \t\n"), failureAt("1:6", "Invalid boolean"));
  EXPECT_EQ(readText("on\n"), failureAt("1:4", "Invalid boolean"));
  EXPECT_FALSE(on_.is_set);
}

TEST_F(elcTest, TextEndsAtWhiteSpaceUnlessItIsQuoted) {
  EXPECT_EQ(readText("text a b\n"), "");
  EXPECT_STREQ(text_.value.STR_type, "a");
  EXPECT_EQ(readText("text \"a b\"\n"), "");
  EXPECT_STREQ(text_.value.STR_type, "a b");
  EXPECT_EQ(readText("text a\"b\n"), "");
  EXPECT_STREQ(text_.value.STR_type, "a\"b");
  EXPECT_EQ(readText("text #x\n"), "");
  EXPECT_STREQ(text_.value.STR_type, "#x");
  EXPECT_EQ(readText("text \n"), "");
  EXPECT_STREQ(text_.value.STR_type, "");
  EXPECT_EQ(readText("text \"\"\n"), "");
  EXPECT_STREQ(text_.value.STR_type, "");
}

TEST_F(elcTest, QuotedTextRunsToTheLastQuoteOfThePiece) {
  EXPECT_EQ(readText("text \"x y\" z\"\n"), "");
  EXPECT_STREQ(text_.value.STR_type, "x y\" z");
  EXPECT_EQ(readText("text \"a\\\"b\" # \"c\" d\n"), "");
  EXPECT_STREQ(text_.value.STR_type, "a\\\"b\" # \"c");
}

TEST_F(elcTest, QuoteThatIsNeverClosedIsReportedBehindThePiece) {
  EXPECT_EQ(readText("text \"abc\n"), failureAt("1:11", "Missing '\"'"));
  EXPECT_EQ(readText("text \""), failureAt("1:7", "Missing '\"'"));
}

TEST_F(elcTest, EarlierTextIsNotFreed) {
  EXPECT_EQ(readText("text first\n"), "");
  char* const first = text_.value.STR_type;
  EXPECT_EQ(readText("text second\n"), "");
  EXPECT_NE(text_.value.STR_type, first);
  EXPECT_STREQ(first, "first");
}

TEST_F(elcTest, TextThatCannotBeCopiedIsReportedAtItsValue) {
  writeFile("text word\n");
  copies_fail = true;
  const char* const message = _elc_init("svc", table_, kEntries);
  copies_fail = false;
  EXPECT_THAT(message, StrEq(failureAt("1:6", "Cannot allocate memory")));
  EXPECT_FALSE(text_.is_set);
}

// ---- Paths ----

TEST_F(elcTest, NameOfNineCharactersIsTheLongest) {
  writeFile("port 9\n", "ninechars");
  EXPECT_EQ(_elc_init("ninechars", table_, kEntries), nullptr);
  EXPECT_EQ(port_.value.UINT_type, 9u);
}

TEST_F(elcTest, LongerNameOpensTheCutPath) {
  writeFile("port 9\n", "tencharact");
  EXPECT_EQ(_elc_init("tencharact", table_, kEntries), nullptr);
  EXPECT_FALSE(port_.is_set);
  std::ofstream(std::string(kDir) + "tencharact.el") << "port 10\n";
  EXPECT_EQ(_elc_init("tencharact", table_, kEntries), nullptr);
  EXPECT_EQ(port_.value.UINT_type, 10u);
  std::ofstream(std::string(kDir) + "muchlongernam") << "port 13\n";
  EXPECT_EQ(_elc_init("muchlongername", table_, kEntries), nullptr);
  EXPECT_EQ(port_.value.UINT_type, 13u);
}

TEST_F(elcTest, FileThatCannotBeOpenedIsReported) {
  EXPECT_EQ(symlink("svc.elc", "/local/local1/elc/svc.elc"), 0);
  EXPECT_THAT(_elc_init("svc", table_, kEntries),
              StrEq("/local/local1/elc/svc.elc open failed: Too many levels of symbolic links"));
}

TEST_F(elcTest, UnreadableFileIsReported) {
  writeFile("port 1\n");
  ASSERT_EQ(chmod("/local/local1/elc/svc.elc", 0), 0);
  errorsOf([this] {
    becomeUser(1234);
    EXPECT_THAT(_elc_init("svc", table_, kEntries),
                StrEq("/local/local1/elc/svc.elc open failed: Permission denied"));
  });
}

TEST_F(elcTest, DirectoryIsReadAsAnEmptyFile) {
  ASSERT_EQ(mkdir("/local/local1/elc/svc.elc", 0777), 0);
  EXPECT_EQ(_elc_init("svc", table_, kEntries), nullptr);
}

TEST_F(elcTest, FileIsClosedWhateverHappens) {
  const auto descriptors = [] {
    return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
  };
  const auto before = descriptors();
  readText("port 1\n");
  readText("port x\n");
  readText("port");
  EXPECT_EQ(descriptors(), before);
}

}  // namespace
