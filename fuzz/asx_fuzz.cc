// ASX playlists: the same links, lines, texts and results as a slow scanner's; without a change of
// links the rewritten text is the text.
#include "playlist.h"

namespace {

const playlist::Language kAsx = {{{"ref", "ref"}, {"entryref", "entryref"}, {"logo", "logo"}},
                                 {"href"},
                                 /*behind_element=*/1,
                                 /*behind_attribute=*/4,
                                 "ASX syntax Error "};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static playlist::Noting object;
  object.wanted_dummy1 = static_cast<int>(size);
  object.wanted_dummy2 = &object;
  playlist::compare(kAsx, object, data, size, [&](xmlRewrite& to, char* path) {
    return to.doParseASX(path, object.wanted_dummy1, object.wanted_dummy2);
  });
  return 0;
}
