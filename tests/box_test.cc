// The appliance's role, read from the real path.
#include "velorin/box"

#include <errno.h>
#include <gmock/gmock.h>
#include <sys/mount.h>
#include <sys/stat.h>

#include <filesystem>
#include <ostream>
#include <string>

#include "support/child.h"
#include "support/private_world.h"
#include "velorin/ad_debug"

namespace {

using testing::IsEmpty;
using testing::MatchesRegex;

constexpr char kPath[] = "/etc/PERSONALITY";

class boxTest : public PrivateWorld {
 protected:
  boxTest() {
    ad_read_debug_cfg_direct_read_from_env();
    // The rest of the test program finds nothing it needs in /etc.
    cover("/etc");
  }
  ~boxTest() override { (void)umount2("/etc", MNT_DETACH); }

  box_personality_t roleFor(const std::string& contents) {
    write(kPath, contents);
    return get_box_personality();
  }

  void expectError(const std::string& message) {
    EXPECT_THAT(daemon().next().text, MatchesRegex("\\([0-9]+\\)ERRO:box.cc:[0-9]+-> " + message));
  }
  void expectInvalid(const std::string& word) {
    expectError("Invalid personality in /etc/PERSONALITY: \"" + word + "\"");
    expectNoLine();
  }
  void expectNoLine() { EXPECT_THAT(daemon().waiting(), IsEmpty()); }
};

struct Row {
  const char* name;
  const char* contents;
  box_personality_t role;
};

void PrintTo(const Row& row, std::ostream* to) {
  *to << row.name;
}

class boxRoleTest : public boxTest, public testing::WithParamInterface<Row> {};

TEST_P(boxRoleTest, IsReadWithoutALogLine) {
  EXPECT_EQ(roleFor(GetParam().contents), GetParam().role);
  expectNoLine();
}

INSTANTIATE_TEST_SUITE_P(
    Files, boxRoleTest,
    testing::Values(Row{"Tarn", "TARN\n", TARN_BOX}, Row{"Ku", "KU\n", KU_BOX},
                    Row{"Mive", "MIVE\n", MIVE_BOX}, Row{"Osko", "OSKO\n", OSKO_BOX},
                    Row{"Pliv", "PLIV\n", PLIV_BOX}, Row{"Drune", "DRUNE\n", DRUNE_BOX},
                    Row{"Vesk", "VESK\n", VESK_BOX}, Row{"LowerCase", "osko\n", OSKO_BOX},
                    Row{"MixedCase", "dRuNe", DRUNE_BOX},
                    Row{"TwoSpacesInFrontAndWordsBehind", "  VESK and further words", VESK_BOX},
                    Row{"OtherWhiteSpaceAround", "\n\t\v\f\rMIVE\tTARN", MIVE_BOX},
                    Row{"NoLineEnd", "TARN", TARN_BOX},
                    Row{"LaterLines", "PLIV\nTARN\n", PLIV_BOX}),
    [](const auto& row) { return std::string(row.param.name); });

TEST_F(boxTest, NumbersAreThoseOfTheInterface) {
  EXPECT_EQ(TARN_BOX, 1);
  EXPECT_EQ(KU_BOX, 2);
  EXPECT_EQ(MIVE_BOX, 3);
  EXPECT_EQ(OSKO_BOX, 4);
  EXPECT_EQ(PLIV_BOX, 5);
  EXPECT_EQ(DRUNE_BOX, 6);
  EXPECT_EQ(VESK_BOX, 7);
}

TEST_F(boxTest, MissingFileIsLoggedAndGivesKu) {
  EXPECT_EQ(get_box_personality(), KU_BOX);
  expectError("open /etc/PERSONALITY: No such file or directory");
  expectNoLine();
}

TEST_F(boxTest, UnreadableFileIsLoggedAndGivesKu) {
  write(kPath, "TARN\n");
  ASSERT_EQ(chmod(kPath, 0), 0);
  const ChildResult child = runInChild([] {
    becomeUser(1000);
    EXPECT_EQ(get_box_personality(), KU_BOX);
  });
  EXPECT_EQ(child.exitCode(), 0) << child;
  expectError("open /etc/PERSONALITY: Permission denied");
}

TEST_F(boxTest, EmptyFileIsInvalidAndGivesKu) {
  EXPECT_EQ(roleFor(""), KU_BOX);
  expectInvalid("");
}

TEST_F(boxTest, FileOfWhiteSpaceIsInvalidAndGivesKu) {
  EXPECT_EQ(roleFor(" \t\n\n"), KU_BOX);
  expectInvalid("");
}

TEST_F(boxTest, DirectoryIsInvalidAndGivesKu) {
  std::filesystem::create_directory(kPath);
  EXPECT_EQ(get_box_personality(), KU_BOX);
  expectInvalid("");
}

TEST_F(boxTest, UnknownTokenIsLoggedAndGivesKu) {
  EXPECT_EQ(roleFor("PELICAN\n"), KU_BOX);
  expectInvalid("PELICAN");
}

TEST_F(boxTest, CharactersBehindTheLettersAreNone) {
  EXPECT_EQ(roleFor("[\n"), KU_BOX);
  expectInvalid("\\[");
  EXPECT_EQ(roleFor("{U\n"), KU_BOX);
  expectInvalid("[{]U");
}

TEST_F(boxTest, TokenWithMoreBehindItIsUnknown) {
  EXPECT_EQ(roleFor("TARN_BOX\n"), KU_BOX);
  expectInvalid("TARN_BOX");
}

TEST_F(boxTest, WordOf255BytesIsReadWhole) {
  EXPECT_EQ(roleFor(std::string(255, 'x') + "\n"), KU_BOX);
  expectInvalid("x{255}");
}

TEST_F(boxTest, WordOf256BytesIsCutTo255) {
  EXPECT_EQ(roleFor(std::string(255, 'x') + "y\n"), KU_BOX);
  expectInvalid("x{255}");
}

TEST_F(boxTest, LongerWordIsCutTo255) {
  EXPECT_EQ(roleFor(std::string(255, 'x') + std::string(5000, 'y')), KU_BOX);
  expectInvalid("x{255}");
}

TEST_F(boxTest, EveryCallReadsTheFileAgain) {
  EXPECT_EQ(roleFor("TARN"), TARN_BOX);
  EXPECT_EQ(roleFor("VESK"), VESK_BOX);
  std::filesystem::remove(kPath);
  EXPECT_EQ(get_box_personality(), KU_BOX);
  expectError("open .*");
}

TEST_F(boxTest, LeavesNoDescriptorOpen) {
  const auto open_descriptors = [] {
    const std::filesystem::directory_iterator all("/proc/self/fd");
    return std::distance(begin(all), end(all));
  };
  EXPECT_EQ(roleFor("PELICAN"), KU_BOX);  // the log's socket is open now
  const auto before = open_descriptors();
  EXPECT_EQ(roleFor("TARN"), TARN_BOX);
  EXPECT_EQ(roleFor(""), KU_BOX);
  EXPECT_EQ(open_descriptors(), before);
}

}  // namespace
