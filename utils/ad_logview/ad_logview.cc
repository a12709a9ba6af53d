// ad_logview: shows, filters and follows the logs that ad_logd writes.
#include <errno.h>
#include <signal.h>
#include <string.h>

#include "common/command.h"
#include "follow.h"
#include "input.h"
#include "line_splitter.h"
#include "options.h"
#include "printer.h"
#include "view.h"

namespace {

// Shows files one after another as one log.
class Show {
 public:
  explicit Show(Options options)
      : files_(std::move(options.files)),
        follow_(options.follow),
        last_(options.last),
        printer_(options.colour, options.charset),
        view_(std::move(options.criteria), &printer_),
        lines_(&view_) {}

  ExitCode run() {
    // Without looking at the others when they need not be looked at.
    const bool seek = last_ && files_.size() == 1 && view_.showsAll();
    if (last_ && !seek) view_.keepLast(*last_);
    for (size_t i = 0; i < files_.size(); ++i)
      if (!follow_ || i + 1 < files_.size()) show(files_[i], seek);
    if (follow_) {
      showAndFollow(files_.back(), seek);
    } else {
      view_.release();
      printer_.flush();
    }
    if (view_.hasMisjudged()) {
      complain("tags, processes and times are looked for in ad_logd's text form only, not in JSON");
      return kTrouble;
    }
    if (trouble_) return kTrouble;
    return view_.hasShown() ? kShown : kNothingShown;
  }

 private:
  void show(const std::string& file, bool seek) {
    Input input;
    bool done = input.open(file);
    if (done && seek) {
      if (input.isRegular()) {
        done = input.seekToLast(*last_, /*whole_only=*/false);
      } else {
        view_.keepLast(*last_);
      }
    }
    done = done && input.readOn(&lines_, &view_);
    lines_.finish();
    trouble_ = trouble_ || !done;
  }

  void showAndFollow(const std::string& file, bool seek) {
    Input input;
    bool done = true;
    if (input.openToFollow(file)) {
      // LCOV_EXCL_BR_NEXT: seeking fails only of a damaged disk
      done = canFollow(file, input) && (!seek || input.seekToLast(*last_, /*whole_only=*/true)) &&
             input.readOn(&lines_, &view_);
    } else if (errno == ENOENT) {
      complain(escaped(file) + ": does not exist yet, waiting for it");
    } else {
      complain(escaped(file) + ": " + strerror(errno));
      done = false;
    }
    view_.release();
    printer_.flush();
    trouble_ = trouble_ || !done || !follow(file, &input, &lines_, &view_);
  }

  static bool canFollow(const std::string& file, const Input& input) {
    if (input.isRegular()) return !input.isOutput();
    complain(escaped(file) + ": is no regular file and cannot be followed");
    return false;
  }

  const std::vector<std::string> files_;
  const bool follow_;
  const std::optional<size_t> last_;
  Printer printer_;
  View view_;
  LineSplitter lines_;
  bool trouble_ = false;
};

}  // namespace

int main(int argc, char** argv) {
  Options options = parseOptions(argc, argv);
  // That a reader has gone is noticed where it is written to it.
  (void)signal(SIGPIPE, SIG_IGN);
  return Show(std::move(options)).run();
}
