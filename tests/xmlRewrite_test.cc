// The links of playlists: which are found, what takes their place, and what is said meanwhile.
#include "velorin/xmlRewrite"

#include <errno.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <stdarg.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <vector>

#include "support/child.h"
#include "support/private_world.h"
#include "support/scripted_reads.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

// ---- The interface ----

static_assert(std::is_polymorphic_v<xmlRewrite>);
static_assert(std::has_virtual_destructor_v<xmlRewrite>);
static_assert(std::is_same_v<logError_t, void (*)(int, char*, ...)>);
constexpr logError_t kOurLogError = &ourLogError;
static_assert(std::is_same_v<decltype(&xmlRewrite::getHrefValue),
                             std::string (xmlRewrite::*)(char*, std::string, int, void*)>);
static_assert(std::is_same_v<decltype(&xmlRewrite::logError), logError_t (xmlRewrite::*)()>);
static_assert(std::is_same_v<decltype(&xmlRewrite::loadFile), bool (xmlRewrite::*)()>);
static_assert(std::is_same_v<decltype(&xmlRewrite::doParseSMIL), int (xmlRewrite::*)(char*)>);
static_assert(
    std::is_same_v<decltype(&xmlRewrite::doParseASX), int (xmlRewrite::*)(char*, int, void*)>);
static_assert(std::is_same_v<decltype(xmlRewrite::doRewrite), int>);

struct ExpectedLayout {
  void* virtual_table;
  std::string contents, new_contents, parse_file_name;
  int do_rewrite;
};
static_assert(sizeof(xmlRewrite) == sizeof(ExpectedLayout));

// The place in the virtual table, in slots, of a virtual function: such a pointer holds one more
// than the place in bytes.
template <class Function>
size_t slotOf(Function function) {
  size_t word;
  memcpy(&word, &function, sizeof word);
  EXPECT_EQ(word % sizeof(void*), 1U);
  return word / sizeof(void*);
}

// ---- An application ----

struct Said {
  int priority;
  std::string text;
};
std::vector<Said> said;

__attribute__((format(printf, 2, 3))) void record(int priority, char* format, ...) {
  char text[4096];
  va_list ap;
  va_start(ap, format);
  EXPECT_LT(vsnprintf(text, sizeof text, format, ap), static_cast<int>(sizeof text));
  va_end(ap);
  said.push_back({priority, text});
}

// Notes what it is asked, and answers with the link behind `prefix`.
class Application : public xmlRewrite {
 public:
  std::string prefix;
  std::vector<std::string> links;  // "TAG LINK"
  int last_dummy1 = -1;
  void* last_dummy2 = this;
  bool throws = false;

  std::string getHrefValue(char* url, std::string tag, int dummy1, void* dummy2) override {
    if (throws) throw std::runtime_error("enough");
    links.push_back(tag + " " + url);
    last_dummy1 = dummy1;
    last_dummy2 = dummy2;
    return prefix + url;
  }
  logError_t logError() override { return record; }
};

// With the log of one that keeps to the default callback.
class Silent : public xmlRewrite {
 public:
  logError_t logError() override { return record; }
};

class xmlRewriteTest : public PrivateWorld {
 protected:
  xmlRewriteTest() { said.clear(); }
  ~xmlRewriteTest() override { scripted_reads.clear(); }

  // Each parses a file that holds `text`, with rewriting.
  int smil(const std::string& text) {
    write(path_, text);
    app_.links.clear();
    app_.doRewrite = 1;
    return app_.doParseSMIL(path_);
  }
  int asx(const std::string& text) {
    write(path_, text);
    app_.links.clear();
    app_.doRewrite = 1;
    return app_.doParseASX(path_, 0, nullptr);
  }

  static std::vector<std::string> saidAt(int priority) {
    std::vector<std::string> texts;
    for (const Said& line : said) {
      if (line.priority == priority) texts.push_back(line.text);
    }
    return texts;
  }

  static size_t openFiles() {
    return static_cast<size_t>(
        std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {}));
  }

  Application app_;
  char path_[16] = "/tmp/list";
};

TEST_F(xmlRewriteTest, StartsEmptyAndWithoutRewriting) {
  const xmlRewrite fresh;
  EXPECT_EQ(fresh.contents_, "");
  EXPECT_EQ(fresh.newContents_, "");
  EXPECT_EQ(fresh.parseFileName_, "");
  EXPECT_EQ(fresh.doRewrite, 0);
}

TEST_F(xmlRewriteTest, MembersLieInTheirOrderBehindTheVirtualTable) {
  const xmlRewrite object;
  const auto at = [&](const void* member) {
    return static_cast<const char*>(member) - reinterpret_cast<const char*>(&object);
  };
  const auto word = static_cast<ptrdiff_t>(sizeof(void*));
  const auto text = static_cast<ptrdiff_t>(sizeof(std::string));
  EXPECT_EQ(at(&object.contents_), word);
  EXPECT_EQ(at(&object.newContents_), word + text);
  EXPECT_EQ(at(&object.parseFileName_), word + 2 * text);
  EXPECT_EQ(at(&object.doRewrite), word + 3 * text);
}

TEST_F(xmlRewriteTest, VirtualSlotsAreDestructorThenGetHrefValueThenLogError) {
  // A destructor takes two slots, the second for delete.
  EXPECT_EQ(slotOf(&xmlRewrite::getHrefValue), 2U);
  EXPECT_EQ(slotOf(&xmlRewrite::logError), 3U);
}

TEST_F(xmlRewriteTest, DeletingThroughTheBaseRunsTheApplicationsDestructor) {
  static bool gone;
  gone = false;
  struct Other : xmlRewrite {
    ~Other() override { gone = true; }
  };
  xmlRewrite* const object = new Other;
  delete object;
  EXPECT_TRUE(gone);
}

// ---- Elements ----

struct ElementRow {
  const char* name;
  const char* text;
  std::vector<std::string> links;
};

class xmlRewriteSmilElement : public xmlRewriteTest,
                              public testing::WithParamInterface<ElementRow> {};
class xmlRewriteAsxElement : public xmlRewriteTest,
                             public testing::WithParamInterface<ElementRow> {};

std::string rowName(const testing::TestParamInfo<ElementRow>& info) {
  return info.param.name;
}

TEST_P(xmlRewriteSmilElement, GivesItsLink) {
  EXPECT_EQ(smil(GetParam().text), 0);
  EXPECT_EQ(app_.links, GetParam().links);
  EXPECT_EQ(app_.newContents_, GetParam().text);
}

TEST_P(xmlRewriteAsxElement, GivesItsLink) {
  EXPECT_EQ(asx(GetParam().text), 0);
  EXPECT_EQ(app_.links, GetParam().links);
  EXPECT_EQ(app_.newContents_, GetParam().text);
}

const ElementRow kSmilRows[] = {
    {"Video", "<video src=\"u\"/>", {"video u"}},
    {"Audio", "<audio src=\"u\"/>", {"audio u"}},
    {"Textstream", "<textstream src=\"u\"/>", {"textstream u"}},
    {"Animation", "<animation src=\"u\"/>", {"animation u"}},
    {"Ref", "<ref src=\"u\"/>", {"ref u"}},
    {"Text", "<text src=\"u\"/>", {"text u"}},
    {"Img", "<img src=\"u\"/>", {"img u"}},
    {"A", "<a href=\"u\">", {"a u"}},
    {"Anchor", "<anchor href=\"u\"/>", {"anchor u"}},
    {"Area", "<area href=\"u\"/>", {"area u"}},
    {"HrefOfMedia", "<video href=\"u\"/>", {"video u"}},
    {"SrcOfAnchor", "<anchor src=\"u\"/>", {"anchor u"}},
    // Kept: an image does not change the name.
    {"ImageAfterVideoIsCalledVideo",
     "<video src=\"u\"/><image src=\"i\"/>",
     {"video u", "video i"}},
    {"ImageAfterVideoWithoutLinkIsCalledVideo", "<video/><video ><image src=\"i\"/>", {"video i"}},
    {"ImageFirstHasNoName", "<image src=\"i\"/>", {" i"}},
    {"ImageBetween",
     "<img src=\"1\"/><image src=\"2\"/><a src=\"3\"/><image src=\"4\"/>",
     {"img 1", "img 2", "a 3", "a 4"}},
    {"AnyCase", "<ViDeO SrC=\"u\"/><A HREF=\"v\"/>", {"video u", "a v"}},
    {"SpacesBeforeTheName", "<   video   src=\"u\"/>", {"video u"}},
    {"TwoBracketsBeforeTheName", "<< <video src=\"u\"/>", {"video u"}},
    {"TabBeforeTheNameIsNoSpace", "<\tvideo src=\"u\"/>", {}},
    {"NewlineBehindTheNameIsNoSpace", "<video\nsrc=\"u\"/>", {}},
    {"NameAtOnceClosed", "<video><a/><audio/>", {}},
    {"LongerName", "<videos src=\"u\"/><textual src=\"u\"/><ab src=\"u\"/>", {}},
    {"LongNamesOtherTail",
     "<textstreaX src=\"u\"/><textstreamX src=\"u\"/><animatioX src=\"u\"/>",
     {}},
    {"LongNamesAnyCase",
     "<TEXTSTREAM src=\"u\"/><AnImAtIoN src=\"v\"/>",
     {"textstream u", "animation v"}},
    {"EndsWithinTheTailOfALongName", "<video src=\"u\"/><animatio", {"video u"}},
    {"ShorterLinkBehindALongerOne",
     "<a href='a long one'><a href='x'><a href='yy'><a href=''>",
     {"a a long one", "a x", "a yy", "a "}},
    {"OtherElement", "<smil ><par src=\"u\"/><seq href=\"u\"><brush src=\"u\"/></smil>", {}},
    {"ClosingElement", "</video src=\"u\">", {}},
    {"CommentIsNone", "<!-- video src=\"u\" -->", {}},
    {"CommentedElementIsOne", "<!-- <video src=\"u\"/> -->", {"video u"}},
    {"DeclarationIsNone", "<?xml src=\"u\"?><!DOCTYPE video src=\"u\">", {}},
    {"OnlyTheFirstWordIsAName", "<par video src=\"u\"/>", {}},
    {"WordsOutsideAreText", "video src=\"u\" > <par/> video src=\"v\"", {}},
    {"SecondLinkIsIgnored", "<video src=\"1\" href=\"2\" src=\"3\"/>", {"video 1"}},
    {"SecondLinkIsIgnoredInAnyOrder", "<video href=\"2\" src=\"1\"/>", {"video 2"}},
    {"ElementWithoutLink", "<video id=\"x\"/><audio src=\"u\"/>", {"audio u"}},
    {"BracketInsideAnElementDoesNotOpenAnother", "<video <audio src=\"u\"/>", {"video u"}},
    {"AttributeInsideAWord", "<video datasrc=\"u\"/>", {"video u"}},
    {"AttributeInsideAValue", "<video title=\"src\" id=\"n\"/>", {"video  id="}},
    {"WordBeginsAtTheEndOfAName", "<area rel=\"x\" nohrefs = 'u'>", {"area u"}},
    {"PartsOfAnAttribute", "<video sr hre s ssrc=\"u\"/>", {"video u"}},
    {"NewlinesBetweenAttributes", "<video \n\tid=\"1\"\r\n\tsrc\n=\n'u'\n/>", {"video u"}},
    {"WhateverStandsBeforeTheQuote", "<video src is what? \"u\"/>", {"video u"}},
    {"EmptyLink", "<video src=\"\"/>", {"video "}},
    {"LinkOfSpaces", "<video src=\"  \"/>", {"video   "}},
    {"SingleQuotes", "<video src='u'/>", {"video u"}},
    {"OpenedSingleClosedDouble", "<video src='u\"/>", {"video u"}},
    {"OpenedDoubleClosedSingle", "<video src=\"u'/>", {"video u"}},
    {"QuestionMarkEndsTheLink", "<video src=\"u?v=1&w\"/>", {"video u"}},
    {"QuestionMarkAtOnce", "<video src=\"?v\"/>", {"video "}},
    {"QuestionMarkBeforeTheQuotes", "<video src=??\"u\"/>", {"video u"}},
    {"BytesAbove127", "<video src=\"\xC3\xA4\xFF\"/>\xFE", {"video \xC3\xA4\xFF"}},
    {"NewlineInALink", "<video src=\"a\nb\"/>", {"video a\nb"}},
    {"ElementRightBehindALink", "<video src=\"u\"<audio src=\"v\"/>", {"video u", "audio v"}},
    {"RestOfAQueryIsText", "<video src=\"u?<audio src='v'/>\"/>", {"video u", "audio v"}},
    {"NothingAtAll", "", {}},
    {"TextOnly", "no brackets here", {}},
    {"ClosingBracketsOnly", ">>>", {}},
};
INSTANTIATE_TEST_SUITE_P(, xmlRewriteSmilElement, testing::ValuesIn(kSmilRows), rowName);

const ElementRow kAsxRows[] = {
    {"Ref", "<ref href=\"u\"/>", {"ref u"}},
    {"Entryref", "<entryref href=\"u\"/>", {"entryref u"}},
    {"Logo", "<logo href=\"u\"/>", {"logo u"}},
    {"AnyCase", "<REF HREF=\"u\"/><EntryRef hReF=\"v\"/>", {"ref u", "entryref v"}},
    {"NewlineBehindTheName", "<ref\nhref=\"u\"/>", {"ref u"}},
    {"TabBehindTheName", "<Ref\tHref = \"u\"/>", {"ref u"}},
    // Kept: any name that begins so, and one character behind it without a look.
    {"LongerName", "<references href=\"u\"/>", {"ref u"}},
    {"CharacterBehindTheNameIsSkipped", "<refhref=\"u\" href=\"v\"/>", {"ref v"}},
    {"ClosingBracketBehindTheNameIsSkipped", "<ref>href=\"u\"</ref>", {"ref u"}},
    {"OpeningBracketBehindTheNameIsSkipped", "<ref<href=\"u\"/>", {"ref u"}},
    {"TwoBehindTheNameAreNot", "<ref >href=\"u\"", {}},
    {"SrcIsNoLink", "<ref src=\"u\"/>", {}},
    {"SrcBeforeHref", "<ref src=\"u\" href=\"v\"/>", {"ref v"}},
    {"SmilElementsAreNone", "<video href=\"u\"/><a href=\"u\"/>", {}},
    {"Closing", "<ref href=\"u\"></ref>", {"ref u"}},
    {"SpacesBeforeTheName", "<  logo href='u'/>", {"logo u"}},
    {"AttributeInsideAWord", "<ref xhref=\"u\"/>", {"ref u"}},
    {"SecondLinkIsIgnored", "<ref href=\"u\" href=\"v\"/>", {"ref u"}},
    {"QuestionMark", "<ref href=\"a.asf?x=1\"/>", {"ref a.asf"}},
    {"WholeList",
     "<ASX version=\"3.0\"><Entry><Title>t</Title><Ref href=\"mms://a/b\"/></Entry></ASX>",
     {"ref mms://a/b"}},
};
INSTANTIATE_TEST_SUITE_P(, xmlRewriteAsxElement, testing::ValuesIn(kAsxRows), rowName);

TEST_F(xmlRewriteTest, HrefInSmilIsSearchedForItsValueFromItsLastLetter) {
  // Three characters behind its start, whatever the attribute is: nothing is lost between.
  EXPECT_EQ(smil("<a href'u'/>"), 0);
  EXPECT_THAT(app_.links, ElementsAre("a u"));
  EXPECT_EQ(smil("<a src'v'/>"), 0);
  EXPECT_THAT(app_.links, ElementsAre("a v"));
  EXPECT_EQ(smil("<a hre'x'f='y'/>"), 0);
  EXPECT_THAT(app_.links, IsEmpty());
}

// ---- Rewriting ----

TEST_F(xmlRewriteTest, LinkIsReplacedAndQueryAndQuotesAreKept) {
  app_.prefix = "b";
  EXPECT_EQ(asx("<asx>\r\n<ref href=\"a.asf?x=1\" />\r\n</asx>\r\n"), 0);
  EXPECT_EQ(app_.newContents_, "<asx>\r\n<ref href=\"ba.asf?x=1\" />\r\n</asx>\r\n");
  EXPECT_EQ(app_.contents_, "<asx>\r\n<ref href=\"a.asf?x=1\" />\r\n</asx>\r\n");
}

TEST_F(xmlRewriteTest, EveryByteBetweenManyLinksIsKept) {
  app_.prefix = "P:";
  EXPECT_EQ(smil("\t<video src='1'  /> &amp; <par>\n<AUDIO id=x HREF = \"2?q\">..</audio\n>>"), 0);
  EXPECT_EQ(app_.newContents_,
            "\t<video src='P:1'  /> &amp; <par>\n<AUDIO id=x HREF = \"P:2?q\">..</audio\n>>");
}

TEST_F(xmlRewriteTest, AnswerMayBeEmptyOrHoldAnything) {
  struct Odd : Application {
    std::string answer;
    std::string getHrefValue(char*, std::string, int, void*) override { return answer; }
  } odd;
  odd.doRewrite = -1;
  write(path_, "<ref href=\"u\"/>");
  EXPECT_EQ(odd.doParseASX(path_, 0, nullptr), 0);
  EXPECT_EQ(odd.newContents_, "<ref href=\"\"/>");
  odd.answer = "<ref href='x'/>";
  EXPECT_EQ(odd.doParseASX(path_, 0, nullptr), 0);
  EXPECT_EQ(odd.newContents_, "<ref href=\"<ref href='x'/>\"/>");
}

TEST_F(xmlRewriteTest, CallbackMayChangeTheLinkInItsPlace) {
  struct Shouting : Application {
    std::string getHrefValue(char* url, std::string, int, void*) override {
      for (char* c = url; *c != '\0'; ++c) *c = '!';
      return url;
    }
  } shouting;
  shouting.doRewrite = 1;
  write(path_, "<ref href=\"abc\"/>");
  EXPECT_EQ(shouting.doParseASX(path_, 0, nullptr), 0);
  EXPECT_EQ(shouting.newContents_, "<ref href=\"!!!\"/>");
  EXPECT_EQ(shouting.contents_, "<ref href=\"abc\"/>");
}

TEST_F(xmlRewriteTest, WithoutRewritingLinksAreReportedAndNothingIsBuilt) {
  write(path_, "<video src=\"u\"/><audio src=\"v\"/>");
  app_.newContents_ = "of the file before";
  EXPECT_EQ(app_.doParseSMIL(path_), 0);
  EXPECT_THAT(app_.links, ElementsAre("video u", "audio v"));
  EXPECT_EQ(app_.newContents_, "");
  write(path_, "<ref href=\"u\"/><ref");
  EXPECT_EQ(app_.doParseASX(path_, 0, nullptr), 2);
  EXPECT_THAT(app_.links, ElementsAre("video u", "audio v", "ref u"));
  EXPECT_EQ(app_.newContents_, "");
}

TEST_F(xmlRewriteTest, SmilCallbackGetsZeroAndNull) {
  EXPECT_EQ(smil("<a href=\"u\">"), 0);
  EXPECT_EQ(app_.last_dummy1, 0);
  EXPECT_EQ(app_.last_dummy2, nullptr);
}

TEST_F(xmlRewriteTest, AsxCallbackGetsWhatTheParseGotUntouched) {
  write(path_, "<ref href=\"u\">");
  int sign_info;
  EXPECT_EQ(app_.doParseASX(path_, -0x12345678, &sign_info), 0);
  EXPECT_EQ(app_.last_dummy1, -0x12345678);
  EXPECT_EQ(app_.last_dummy2, &sign_info);
  EXPECT_EQ(app_.doParseASX(path_, 7, reinterpret_cast<void*>(~uintptr_t{0})), 0);
  EXPECT_EQ(app_.last_dummy1, 7);
  EXPECT_EQ(app_.last_dummy2, reinterpret_cast<void*>(~uintptr_t{0}));
}

// ---- What is logged ----

TEST_F(xmlRewriteTest, EachLinkIsLoggedWithThePlacesOfItsEnds) {
  EXPECT_EQ(smil("<video src=\"u\"/><audio src='abc?d'/>"), 0);
  EXPECT_THAT(saidAt(7), ElementsAre("First and R 11  13", "First and R 27  31"));
  EXPECT_EQ(said.size(), 2U);
}

TEST_F(xmlRewriteTest, PlacesAreDecimalHoweverLong) {
  EXPECT_EQ(asx(std::string(100000, ' ') + "<ref href=\"u\"/>"), 0);
  EXPECT_THAT(saidAt(7), ElementsAre("First and R 100010  100012"));
}

TEST_F(xmlRewriteTest, LinkIsLoggedBeforeTheCallback) {
  app_.throws = true;
  EXPECT_THROW(smil("<video src=\"u\"/>"), std::runtime_error);
  EXPECT_THAT(saidAt(7), ElementsAre("First and R 11  13"));
}

TEST_F(xmlRewriteTest, DefaultCallbackLogsItsArgumentsAndKeepsTheLink) {
  write(path_, "<ref href=\"u?q\"/>");
  Silent silent;
  silent.doRewrite = 1;
  EXPECT_EQ(silent.doParseASX(path_, -1, reinterpret_cast<void*>(0x5AB0)), 0);
  EXPECT_THAT(
      saidAt(7),
      ElementsAre("First and R 10  12",
                  "xmlRewrite::getHrefValue: url = u tag = ref dummy1 = ffffffff dummy2 = 0x5ab0"));
  EXPECT_EQ(silent.newContents_, "<ref href=\"u?q\"/>");
  said.clear();
  write(path_, "<image src='%s%n'/>");
  EXPECT_EQ(silent.doParseSMIL(path_), 0);
  EXPECT_THAT(saidAt(7),
              ElementsAre("First and R 11  16",
                          "xmlRewrite::getHrefValue: url = %s%n tag =  dummy1 = 0 dummy2 = (nil)"));
}

TEST_F(xmlRewriteTest, OurLogErrorFormatsToStandardOutputAndFlushes) {
  const ChildResult child = runInChild([] {
    ourLogError(3, const_cast<char*>("%s has %d links, %c"), "list", 12, 'x');
    ourLogError(7, const_cast<char*>("; no newline of its own"));
    _exit(0);  // what was not flushed is lost
  });
  EXPECT_EQ(child.exitCode(), 0) << child;
  EXPECT_EQ(child.out, "list has 12 links, x; no newline of its own");
  EXPECT_EQ(child.err, "");
}

TEST_F(xmlRewriteTest, DefaultLogFunctionIsOurLogError) {
  xmlRewrite object;
  EXPECT_EQ(object.logError(), kOurLogError);
}

TEST_F(xmlRewriteTest, WithoutOverridesEverythingIsSaidOnStandardOutput) {
  write(path_, "<ref href=\"u\"/><ref");
  const ChildResult child = runInChild([this] {
    xmlRewrite object;
    EXPECT_EQ(object.doParseASX(path_, 1, nullptr), 2);
    char missing[] = "/tmp/missing";
    EXPECT_EQ(object.doParseSMIL(missing), 2);
  });
  EXPECT_EQ(child.exitCode(), 0) << child;
  EXPECT_EQ(child.out,
            "First and R 10  12"
            "xmlRewrite::getHrefValue: url = u tag = ref dummy1 = 1 dummy2 = (nil)"
            "ASX syntax Error  /tmp/list"
            "xmlRewrite::loadFile Error for '/tmp/missing': No such file or directory (errno=2)");
}

// ---- Texts that end too early, and values that do ----

struct ErrorRow {
  const char* name;
  const char* text;
  const char* rewritten;  // with the prefix "P:"
};

class xmlRewriteSmilError : public xmlRewriteTest, public testing::WithParamInterface<ErrorRow> {};
class xmlRewriteSmilEnd : public xmlRewriteTest, public testing::WithParamInterface<ErrorRow> {};
class xmlRewriteAsxError : public xmlRewriteTest, public testing::WithParamInterface<ErrorRow> {};
class xmlRewriteAsxEnd : public xmlRewriteTest, public testing::WithParamInterface<ErrorRow> {};

std::string errorRowName(const testing::TestParamInfo<ErrorRow>& info) {
  return info.param.name;
}

TEST_P(xmlRewriteSmilError, StopsTheParseAndLeavesTheRestOut) {
  app_.prefix = "P:";
  EXPECT_EQ(smil(GetParam().text), 2);
  EXPECT_EQ(app_.newContents_, GetParam().rewritten);
  EXPECT_EQ(said.back().priority, 7);
  EXPECT_EQ(said.back().text, "SMIL syntax Error /tmp/list");
}

TEST_P(xmlRewriteAsxError, StopsTheParseAndLeavesTheRestOut) {
  app_.prefix = "P:";
  EXPECT_EQ(asx(GetParam().text), 2);
  EXPECT_EQ(app_.newContents_, GetParam().rewritten);
  EXPECT_EQ(said.back().priority, 7);
  EXPECT_EQ(said.back().text, "ASX syntax Error /tmp/list");
}

TEST_P(xmlRewriteSmilEnd, IsReportedWithTwoSpacesBehindACompleteRewrite) {
  app_.prefix = "P:";
  EXPECT_EQ(smil(GetParam().text), 2);
  EXPECT_EQ(app_.newContents_, GetParam().rewritten);
  EXPECT_EQ(said.back().priority, 7);
  EXPECT_EQ(said.back().text, "SMIL syntax Error  /tmp/list");
}

TEST_P(xmlRewriteAsxEnd, IsReportedWithTwoSpacesBehindACompleteRewrite) {
  app_.prefix = "P:";
  EXPECT_EQ(asx(GetParam().text), 2);
  EXPECT_EQ(app_.newContents_, GetParam().rewritten);
  EXPECT_EQ(said.back().priority, 7);
  EXPECT_EQ(said.back().text, "ASX syntax Error  /tmp/list");
}

const ErrorRow kSmilErrors[] = {
    {"NoQuotes", "<video src=u />", ""},
    {"NoQuotesAfterALink", "<img src='1' /><video src=u /> and more", "<img src='P:1"},
    {"OpeningBracketBeforeTheQuote", "<video src=<\"u\"/>", ""},
    {"ClosingBracketInTheLink", "<video src=\"a>b\"/>", ""},
    {"OpeningBracketInTheLink", "<video src=\"a<b\"/>", ""},
    {"EndBeforeTheQuote", "<video src=", ""},
    {"EndRightBehindSrc", "<video src", ""},
    {"EndRightBehindHref", "<video href", ""},
    {"EndAtTheQuote", "<video src=\"", ""},
    {"EndInTheLink", "<video src=\"abc", ""},
    {"QuestionMarkInsteadOfAQuote", "<video src=?u?/>", ""},
    {"AttributeInAWordWithoutAValue", "<video transrc/>", ""},
};
INSTANTIATE_TEST_SUITE_P(, xmlRewriteSmilError, testing::ValuesIn(kSmilErrors), errorRowName);

const ErrorRow kAsxErrors[] = {
    {"NoQuotes", "<ref href=u />", ""},
    {"NoQuotesAfterALink", "<logo href='1' /><ref href=u/>", "<logo href='P:1"},
    {"BracketInTheLink", "<ref href=\"a>b\"/>", ""},
    {"EndRightBehindHref", "<ref href", ""},
    {"EndInTheLink", "<ref href='abc", ""},
    {"QuestionMarkInsteadOfAQuote", "<ref href=?u?/>", ""},
};
INSTANTIATE_TEST_SUITE_P(, xmlRewriteAsxError, testing::ValuesIn(kAsxErrors), errorRowName);

const ErrorRow kSmilEnds[] = {
    {"InTheElement", "<a href='1'/><video id=\"x\"", "<a href='P:1'/><video id=\"x\""},
    {"RightBehindTheName", "<video ", "<video "},
    {"RightBehindTheBracket", "<video src=\"u\"/><", "<video src=\"P:u\"/><"},
    {"BehindSpaces", "<   ", "<   "},
    {"InTheAttribute", "<video hre", "<video hre"},
};
INSTANTIATE_TEST_SUITE_P(, xmlRewriteSmilEnd, testing::ValuesIn(kSmilEnds), errorRowName);

const ErrorRow kAsxEnds[] = {
    {"RightBehindTheName", "<ref", "<ref"},
    {"RightBehindTheNameAfterALink", "<ref href='u'/><entryref", "<ref href='P:u'/><entryref"},
    {"RightBehindTheSkippedCharacter", "<logo>", "<logo>"},
    {"InTheElement", "<ref hre", "<ref hre"},
};
INSTANTIATE_TEST_SUITE_P(, xmlRewriteAsxEnd, testing::ValuesIn(kAsxEnds), errorRowName);

TEST_F(xmlRewriteTest, EndBehindALinkIsNoErrorAsTheElementIsDoneWith) {
  EXPECT_EQ(smil("<video src=\"u\""), 0);
  EXPECT_EQ(app_.newContents_, "<video src=\"u\"");
  EXPECT_EQ(smil("<video src=\"u?rest"), 0);
  EXPECT_EQ(app_.newContents_, "<video src=\"u?rest");
}

TEST_F(xmlRewriteTest, EndInAnElementOfAnotherKindIsNoError) {
  EXPECT_EQ(smil("<smil"), 0);
  EXPECT_EQ(app_.newContents_, "<smil");
  EXPECT_EQ(smil("<video"), 0);  // no space behind it
  EXPECT_EQ(asx("<!-- never closed"), 0);
}

TEST_F(xmlRewriteTest, TextIsNeverReadBeyondItsEndWhereverItEnds) {
  // Long enough that its room ends with it, where a sanitizer watches; a fresh object has no more.
  const std::string before(64, '.');
  const std::string smil_text = "<textstream src=\"u\"/>";
  const std::string asx_text = "<entryref\thref=\"u?v\"/><ref";
  for (size_t size = 0; size <= smil_text.size(); ++size) {
    app_ = Application();
    (void)smil(before + smil_text.substr(0, size));
    EXPECT_EQ(app_.contents_, before + smil_text.substr(0, size));
  }
  for (size_t size = 0; size <= asx_text.size(); ++size) {
    app_ = Application();
    (void)asx(before + asx_text.substr(0, size));
    EXPECT_EQ(app_.contents_, before + asx_text.substr(0, size));
  }
}

TEST_F(xmlRewriteTest, LinksAreFoundWhereverTheyStandBetweenOthers) {
  // Longer than what is looked at in one step, in the element, the link and the query.
  for (size_t size = 0; size < 40; ++size) {
    const std::string filling(size, 'h');
    const std::string link = "u" + filling;
    EXPECT_EQ(smil("<video " + filling + "src='" + link + "?" + filling + "'/><a>"), 0);
    EXPECT_THAT(app_.links, ElementsAre("video " + link));
    EXPECT_EQ(
        smil("<video " + filling + "/>" + filling + "<a HREF" + filling + "=\"" + link + "'/>"), 0);
    EXPECT_THAT(app_.links, ElementsAre("a " + link));
    EXPECT_EQ(asx("<ref " + filling + "src='x' Href='" + link + "'/>" + filling), 0);
    EXPECT_THAT(app_.links, ElementsAre("ref " + link));
    EXPECT_EQ(asx("<ref " + filling + "href='" + filling + ">'/>"), 2);
  }
}

// ---- One object, many files ----

TEST_F(xmlRewriteTest, OneObjectParsesManyFiles) {
  app_.prefix = "P:";
  EXPECT_EQ(smil("<video src=\"1\"/> a longer text than the next one"), 0);
  EXPECT_EQ(asx("<ref href='2'/>"), 0);
  EXPECT_EQ(app_.contents_, "<ref href='2'/>");
  EXPECT_EQ(app_.newContents_, "<ref href='P:2'/>");
  EXPECT_EQ(smil("<image src='3'/>"), 0);  // the name of an element of another file is forgotten
  EXPECT_THAT(app_.links, ElementsAre(" 3"));
  EXPECT_EQ(app_.newContents_, "<image src='P:3'/>");
  EXPECT_NE(app_.doRewrite, 0);
  EXPECT_EQ(app_.parseFileName_, "/tmp/list");
}

TEST_F(xmlRewriteTest, ParseAfterASyntaxErrorStartsAnew) {
  EXPECT_EQ(smil("<img src='1'/><video src=u />"), 2);
  EXPECT_EQ(smil("<image src='2'/>"), 0);
  EXPECT_THAT(app_.links, ElementsAre(" 2"));
  EXPECT_EQ(app_.newContents_, "<image src='2'/>");
}

TEST_F(xmlRewriteTest, CallbackThatThrowsLeavesTheObjectUsable) {
  const size_t files = openFiles();
  app_.throws = true;
  EXPECT_THROW(smil("<video src=\"1\"/>"), std::runtime_error);
  EXPECT_EQ(openFiles(), files);
  app_.throws = false;
  EXPECT_EQ(smil("<image src=\"2\"/>"), 0);
  EXPECT_THAT(app_.links, ElementsAre(" 2"));
  EXPECT_EQ(app_.newContents_, "<image src=\"2\"/>");
}

TEST_F(xmlRewriteTest, CopyIsAnObjectOfItsOwn) {
  EXPECT_EQ(smil("<video src=\"1\"/>"), 0);
  Application copy = app_;
  EXPECT_EQ(smil("<video src=\"2\"/>"), 0);
  EXPECT_EQ(copy.newContents_, "<video src=\"1\"/>");
  EXPECT_EQ(copy.parseFileName_, "/tmp/list");
  EXPECT_EQ(copy.doRewrite, 1);
}

TEST_F(xmlRewriteTest, FileNameMayBeTheObjectsOwn) {
  EXPECT_EQ(smil("<video src=\"1\"/>"), 0);
  EXPECT_EQ(app_.doParseSMIL(app_.parseFileName_.data()), 0);
  EXPECT_EQ(app_.parseFileName_, "/tmp/list");
  EXPECT_THAT(app_.links, ElementsAre("video 1", "video 1"));
}

// ---- Loading ----

TEST_F(xmlRewriteTest, LoadFileFillsOnlyTheContents) {
  write(path_, "<video src=\"1\"/>");
  app_.parseFileName_ = path_;
  app_.newContents_ = "kept";
  EXPECT_TRUE(app_.loadFile());
  EXPECT_EQ(app_.contents_, "<video src=\"1\"/>");
  EXPECT_EQ(app_.newContents_, "kept");
  EXPECT_THAT(said, IsEmpty());
}

TEST_F(xmlRewriteTest, MissingFileIsLoggedAndNothingElseChanges) {
  EXPECT_EQ(smil("<video src=\"1\"/>"), 0);
  said.clear();
  char missing[] = "/tmp/mis%sing";
  EXPECT_EQ(app_.doParseSMIL(missing), 2);
  EXPECT_EQ(app_.doParseASX(missing, 1, nullptr), 2);
  const std::string line =
      "xmlRewrite::loadFile Error for '/tmp/mis%sing': No such file or directory (errno=2)";
  EXPECT_THAT(saidAt(3), ElementsAre(line, line));
  EXPECT_EQ(said.size(), 2U);
  EXPECT_EQ(app_.parseFileName_, "/tmp/mis%sing");
  EXPECT_EQ(app_.contents_, "<video src=\"1\"/>");
  EXPECT_EQ(app_.newContents_, "<video src=\"1\"/>");
}

TEST_F(xmlRewriteTest, NullFileNameIsAMissingFile) {
  EXPECT_EQ(app_.doParseSMIL(nullptr), 2);
  EXPECT_THAT(
      saidAt(3),
      ElementsAre("xmlRewrite::loadFile Error for '': No such file or directory (errno=2)"));
}

TEST_F(xmlRewriteTest, FileThatMayNotBeOpenedIsLogged) {
  // A socket passes stat, but cannot be opened; a link that leads to itself passes neither.
  char daemon_socket[] = "/tmp/ad_errorlog";
  EXPECT_EQ(app_.doParseSMIL(daemon_socket), 2);
  EXPECT_THAT(saidAt(3), ElementsAre("xmlRewrite::loadFile Error for '/tmp/ad_errorlog': No such "
                                     "device or address (errno=6)"));
  std::filesystem::create_symlink("/tmp/loop", "/tmp/loop");
  char loop[] = "/tmp/loop";
  EXPECT_EQ(app_.doParseSMIL(loop), 2);
  EXPECT_EQ(said.back().text,
            "xmlRewrite::loadFile Error for '/tmp/loop': Too many levels of symbolic links "
            "(errno=40)");
}

TEST_F(xmlRewriteTest, ReadErrorIsLoggedAndLeavesTheFileOpenAndTheTextsAsTheyWere) {
  for (const char* next : {"<a href=\"\"/>", "<video src=\"a longer one\"/>"}) {
    EXPECT_EQ(smil("<video src=\"1\"/>"), 0);
    write(path_, next);
    said.clear();
    const size_t files = openFiles();
    scripted_reads = {{EINTR, 0}, {EIO, 0}};
    EXPECT_EQ(app_.doParseSMIL(path_), 2);
    EXPECT_THAT(saidAt(3), ElementsAre("xmlRewrite::loadFile Error for '/tmp/list': Input/output "
                                       "error (errno=5)"));
    EXPECT_EQ(said.size(), 1U);
    EXPECT_EQ(openFiles(), files + 1);
    EXPECT_EQ(app_.contents_, "<video src=\"1\"/>");
    EXPECT_EQ(app_.newContents_, "<video src=\"1\"/>");
    EXPECT_EQ(app_.doParseSMIL(path_), 0);
    EXPECT_EQ(app_.newContents_, next);
    EXPECT_EQ(openFiles(), files + 1);
  }
}

TEST_F(xmlRewriteTest, ReadErrorBehindAPartOfTheFileLeavesNoContents) {
  EXPECT_EQ(smil("<video src=\"1\"/>"), 0);
  write(path_, "<video src=\"a longer one\"/>");
  said.clear();
  scripted_reads = {{0, 5}, {EIO, 0}};
  EXPECT_EQ(app_.doParseSMIL(path_), 2);
  EXPECT_THAT(saidAt(3), ElementsAre("xmlRewrite::loadFile Error for '/tmp/list': Input/output "
                                     "error (errno=5)"));
  EXPECT_EQ(app_.contents_, "");
  EXPECT_EQ(app_.newContents_, "<video src=\"1\"/>");
  EXPECT_EQ(app_.doParseSMIL(path_), 0);
  EXPECT_EQ(app_.contents_, "<video src=\"a longer one\"/>");
}

TEST_F(xmlRewriteTest, ShorterPlaylistLeavesNothingOfTheLongerOneBefore) {
  EXPECT_EQ(smil("<video src=\"a longer one\"/><audio src='2'/>"), 0);
  EXPECT_EQ(smil("<video src=\"1\"/>"), 0);
  EXPECT_EQ(app_.contents_, "<video src=\"1\"/>");
  EXPECT_THAT(app_.links, ElementsAre("video 1"));
  EXPECT_EQ(smil(std::string("<a\0", 3)), 0);
  EXPECT_EQ(app_.contents_, "<a");
}

TEST_F(xmlRewriteTest, RoomOfAFailedReadStaysAllocatedAndBelongsToTheObject) {
  write(path_, std::string(100000, 'x'));
  scripted_reads = {{EIO, 0}};
  app_.parseFileName_ = path_;
  EXPECT_FALSE(app_.loadFile());
  EXPECT_EQ(app_.contents_, "");
  EXPECT_GE(app_.contents_.capacity(), 100000U);
}

TEST_F(xmlRewriteTest, FolderIsAReadError) {
  std::filesystem::create_directory("/tmp/folder");
  std::ofstream("/tmp/folder/entry") << "x";  // an empty one may have the size 0
  char folder[] = "/tmp/folder";
  struct stat status;
  ASSERT_EQ(stat(folder, &status), 0);
  ASSERT_GT(status.st_size, 0);
  EXPECT_EQ(app_.doParseASX(folder, 0, nullptr), 2);
  EXPECT_THAT(saidAt(3), ElementsAre("xmlRewrite::loadFile Error for '/tmp/folder': Is a directory "
                                     "(errno=21)"));
}

TEST_F(xmlRewriteTest, InterruptedReadIsRepeated) {
  scripted_reads = {{EINTR, 0}, {EINTR, 0}, {0, 3}, {EINTR, 0}, {0, 4}};
  EXPECT_EQ(smil("<video src=\"1\"/>"), 0);
  EXPECT_THAT(scripted_reads, IsEmpty());
  EXPECT_EQ(app_.contents_, "<video src=\"1\"/>");
  EXPECT_THAT(saidAt(3), IsEmpty());
}

TEST_F(xmlRewriteTest, ReadThatGivesNothingTooEarlyIsRepeated) {
  scripted_reads = {{0, 1}, {0, 0}, {0, 0}, {0, 2}, {0, 0}};
  EXPECT_EQ(smil("<video src=\"1\"/>"), 0);
  EXPECT_THAT(scripted_reads, IsEmpty());
  EXPECT_EQ(app_.contents_, "<video src=\"1\"/>");
}

TEST_F(xmlRewriteTest, LoadedFileIsClosed) {
  const size_t files = openFiles();
  EXPECT_EQ(smil("<video src=\"1\"/>"), 0);
  EXPECT_EQ(smil("<video src=1 />"), 2);
  EXPECT_EQ(openFiles(), files);
}

TEST_F(xmlRewriteTest, ContentsEndAtTheFirstZeroByte) {
  EXPECT_EQ(smil(std::string("<video src=\"1\"/>\0<video src=\"2\"/>", 33)), 0);
  EXPECT_THAT(app_.links, ElementsAre("video 1"));
  EXPECT_EQ(app_.contents_, "<video src=\"1\"/>");
  EXPECT_EQ(app_.newContents_, "<video src=\"1\"/>");
  EXPECT_EQ(smil(std::string("<video sr\0c=\"1\"/>", 17)), 2);  // ends inside an element
  EXPECT_EQ(app_.newContents_, "<video sr");
  EXPECT_EQ(smil(std::string("\0<video src=\"2\"/>", 17)), 0);
  EXPECT_EQ(app_.contents_, "");
}

TEST_F(xmlRewriteTest, EmptyFileHasNoLinks) {
  EXPECT_EQ(smil("<video src=\"1\"/>"), 0);
  EXPECT_EQ(smil(""), 0);
  EXPECT_EQ(app_.contents_, "");
  EXPECT_EQ(app_.newContents_, "");
}

class xmlRewriteHugeTest : public xmlRewriteTest {
 protected:
  void expectTooLarge(off_t size) {
    const int fd = open("/tmp/huge", O_CREAT | O_WRONLY | O_CLOEXEC, 0600);
    ASSERT_GE(fd, 0);
    if (ftruncate(fd, size) != 0) GTEST_SKIP() << "the file system has no files of this size";
    (void)close(fd);
    const size_t files = openFiles();
    char huge[] = "/tmp/huge";
    EXPECT_EQ(app_.doParseSMIL(huge), 2);
    EXPECT_THAT(saidAt(3), ElementsAre("xmlRewrite::loadFile Error for '/tmp/huge': Cannot "
                                       "allocate memory (errno=12)"));
    EXPECT_EQ(openFiles(), files);
  }
};

TEST_F(xmlRewriteHugeTest, FileTooLargeForATextIsALoadErrorWithoutAnException) {
  // On 32 bits the lower half of the size alone would be a small file's.
  expectTooLarge(sizeof(void*) == 4 ? (off_t{1} << 32) + 8 : off_t{1} << 62);
}

// Sanitizers end a program that asks for so much.
#if __SIZEOF_POINTER__ == 8 && !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
TEST_F(xmlRewriteHugeTest, FileTooLargeForMemoryIsALoadErrorWithoutAnException) {
  // A text could be as long, but no address space is as large.
  expectTooLarge(off_t{1} << 61);
}
#endif

// ---- The example ----

const char kExample[] = VELORIN_BIN "/example_playlist_links";

TEST_F(xmlRewriteTest, ExampleTakesTheFormatFromAnOptionOrTheNamesEnding) {
  write("/tmp/list.txt", "<logo href='u'/><video src='v'/>");
  write("/tmp/LIST.ASX", "<logo href='u'/><video src='v'/>");
  EXPECT_EQ(runProgram({kExample, "--asx", "/tmp/list.txt"}).out, "logo u\n");
  EXPECT_EQ(runProgram({kExample, "--smil", "/tmp/list.txt"}).out, "video v\n");
  EXPECT_EQ(runProgram({kExample, "--smil", "/tmp/LIST.ASX"}).out, "video v\n");
  EXPECT_EQ(runProgram({kExample, "/tmp/LIST.ASX"}).out, "logo u\n");
  const ChildResult unknown = runProgram({kExample, "/tmp/list.txt"});
  EXPECT_EQ(unknown.exitCode(), 1) << unknown;
  EXPECT_THAT(unknown.err, testing::StartsWith("usage: playlist_links "));
  EXPECT_EQ(runProgram({kExample}).exitCode(), 1);
  EXPECT_EQ(runProgram({kExample, "--prefix"}).exitCode(), 1);
}

TEST_F(xmlRewriteTest, ExampleTellsThatAFileIsMissing) {
  const ChildResult missing = runProgram({kExample, "/tmp/none.smil"});
  EXPECT_EQ(missing.exitCode(), 2) << missing;
  EXPECT_EQ(missing.out, "");
  EXPECT_EQ(missing.err,
            "xmlRewrite::loadFile Error for '/tmp/none.smil': No such file or directory "
            "(errno=2)\n");
}

TEST_F(xmlRewriteTest, LongPlaylistOfManyLinksIsRewrittenWhole) {
  std::string text;
  std::string expected;
  std::vector<std::string> positions;
  for (int i = 0; i < 30000; ++i) {
    const std::string link = std::to_string(i) + ".rm";
    const std::string rest = "?s=" + std::to_string(i) + "\" dur='5s'/>\n";
    text += "<par><video region=\"r\" src=\"";
    positions.push_back("First and R " + std::to_string(text.size() - 1) + "  " +
                        std::to_string(text.size() + link.size()));
    text += link + rest;
    expected += "<par><video region=\"r\" src=\"P:" + link + rest;
  }
  ASSERT_GT(text.size(), 1000000U);  // for positions of each number of digits up to seven
  app_.prefix = "P:";
  EXPECT_EQ(smil(text), 0);
  EXPECT_EQ(app_.links.size(), 30000U);
  EXPECT_EQ(app_.links.back(), "video 29999.rm");
  EXPECT_EQ(app_.newContents_, expected);
  EXPECT_EQ(saidAt(7), positions);
  // Small positions again, behind large ones.
  said.clear();
  EXPECT_EQ(smil("<a href='v'>"), 0);
  EXPECT_THAT(saidAt(7), ElementsAre("First and R 8  10"));
}

TEST_F(xmlRewriteTest, LinksOfAllLengthsAreWhole) {
  std::string text;
  std::vector<std::string> links;
  for (size_t length = 1; length < 600; ++length) {
    const std::string link(length, static_cast<char>('a' + length % 26));
    text += "<a href='" + link + "'>";
    links.push_back("a " + link);
  }
  for (size_t length : {256, 1, 255, 254, 257}) {
    const std::string link(length, 'z');
    text += "<a href='" + link + "'>";
    links.push_back("a " + link);
  }
  EXPECT_EQ(smil(text), 0);
  EXPECT_EQ(app_.links, links);
  EXPECT_EQ(app_.newContents_, text);
}

TEST_F(xmlRewriteTest, PositionsAreRightWhereTheirDigitsChange) {
  for (const size_t around : {9, 99, 999, 9999, 10099, 19999, 99999, 999999}) {
    for (size_t first = around - 1; first <= around + 2; ++first) {
      said.clear();
      if (first < 8) continue;
      const std::string text = std::string(first - 8, '.') + "<a href='v'><a href=''>";
      EXPECT_EQ(smil(text), 0);
      EXPECT_THAT(saidAt(7), ElementsAre("First and R " + std::to_string(first) + "  " +
                                             std::to_string(first + 2),
                                         "First and R " + std::to_string(first + 12) + "  " +
                                             std::to_string(first + 13)));
    }
  }
}

}  // namespace
