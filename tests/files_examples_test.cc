// The examples of the file functions, run as a user would, in folders of their own.
#include <gmock/gmock.h>
#include <sys/stat.h>

#include <string>
#include <vector>

#include "support/child.h"
#include "support/private_world.h"

namespace {

class filesExamplesTest : public PrivateWorld {
 protected:
  filesExamplesTest() {
    cover("/local/local1");
    EXPECT_EQ(mkdir("/local/local1/elc", 0777), 0);
    EXPECT_EQ(mkdir("/tmp/work", 0777), 0);
  }

  // Runs the example and compares what it writes.
  static void expectOutput(const std::string& name, int exit_code = 0) {
    const std::string expected = read(VELORIN_SOURCE "/tests/expected/" + name + ".txt");
    const ChildResult child = runProgram({VELORIN_BIN "/example_" + name, "/tmp/work"});
    EXPECT_EQ(child.exitCode(), exit_code) << child;
    EXPECT_EQ(child.out, expected);
    EXPECT_EQ(child.err, "");
  }
};

TEST_F(filesExamplesTest, FileValuesShowsWhatPathsNameAndFilesHold) {
  expectOutput("file_values");
}

TEST_F(filesExamplesTest, FileChangesMovesCopiesAndLinks) {
  expectOutput("file_changes");
  EXPECT_EQ(read("/tmp/work/spool/job.old"), "print this\n");
}

TEST_F(filesExamplesTest, PropertiesAreSavedInOneStep) {
  expectOutput("properties");
  struct stat status;
  EXPECT_NE(stat("/tmp/work/settings.new", &status), 0);
  EXPECT_EQ(read("/tmp/work/settings"), "filter=host\\=10.0.0.1\nname=box\nport=8008\n");
}

TEST_F(filesExamplesTest, ElcSettingsShowsValuesAndTheFault) {
  write("/local/local1/elc/proxy.elc",
        "# of the proxy\nport 0x1F48  # 8008\ngreeting \"Welcome to \"the box\", friend\"\n"
        "offset -5\nverbose maybe\n");
  expectOutput("elc_settings", 1);
}

}  // namespace
