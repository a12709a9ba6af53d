// A private world for the tests of the file functions: a folder to work in and the log's lines.
#ifndef VELORIN_TESTS_files_world_
#define VELORIN_TESTS_files_world_

#include <gmock/gmock.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "support/private_world.h"
#include "velorin/Exception"
#include "velorin/ad_debug"

class FilesWorld : public PrivateWorld {
 protected:
  // Trace lines are written.
  FilesWorld() { writeLinesFromLevel(2); }

  void writeLinesFromLevel(int32_t level) {
    ad_read_debug_cfg_direct_read_from_env();
    ad_debug_cfg_p->ad_debug_level = level;
    (void)daemon().waiting();
  }

  // What was logged since the last call, as "TAG SOURCE: MESSAGE". Fails the test when a line has
  // another prefix than those of this process.
  std::vector<std::string> lines() {
    std::vector<std::string> all;
    for (const std::string& text : daemon().waiting()) all.push_back(withoutNumbers(text));
    return all;
  }

  // The identifier and details of what `body` throws, as Exception::toString shows them.
  template <class Body>
  static std::string thrownBy(Body body) {
    try {
      body();
    } catch (const Exception& e) {
      return e.toString();
    }
    return "nothing";
  }

 private:
  static std::string withoutNumbers(const std::string& text) {
    const std::string process = "(" + std::to_string(getpid()) + ")";
    const size_t tag = process.size();
    const size_t source = tag + 5;  // behind a tag of four letters and a colon
    const size_t line = text.find(':', source);
    const size_t arrow = text.find("-> ");
    const bool whole = text.compare(0, tag, process) == 0 && text.size() > source &&
                       text[source - 1] == ':' && line < arrow && arrow != std::string::npos;
    EXPECT_TRUE(whole) << text;
    if (!whole) return text;
    return text.substr(tag, 4) + " " + text.substr(source, line - source) + ": " +
           text.substr(arrow + 3);
  }
};

#endif  // VELORIN_TESTS_files_world_
