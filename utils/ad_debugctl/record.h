// The debug record that a log daemon's processes share: where it is and what it holds.
#ifndef VELORIN_AD_DEBUGCTL_record_
#define VELORIN_AD_DEBUGCTL_record_

#include <stdint.h>

#include <array>
#include <optional>
#include <string>
#include <vector>

#include "velorin/ad_debug"

constexpr int kProjectId = 'd';  // of a record's key
constexpr uint32_t kSpecialLevel = 4;

// ---- Its words ----

enum Field { kLevel, kClient, kServer };
constexpr const char* kFieldNames[] = {"level", "client", "server"};
constexpr Field kFields[] = {kLevel, kClient, kServer};
using Words = std::array<uint32_t, 3>;  // by Field

Words read_words(ad_debug_cfg_t* cfg);

// Stores `value`; the word's value before.
uint32_t exchange_word(ad_debug_cfg_t* cfg, Field field, uint32_t value);

// As users write it, and as JSON has it.
std::string text_of(Field field, uint32_t value, bool json);

// ---- Its segment ----

struct Record {
  std::string path;  // the socket that it belongs to
  int id;            // of its segment
  ad_debug_cfg_t* cfg;
};

// By the rule of ad_init_debug_lib: the user's own daemon's socket first, then the superuser's.
std::vector<std::string> sockets_of(const std::string& base);

// The segment that belongs to the socket `path`; -1, with the reason in `*why`, when there is none.
int find_segment(const std::string& path, std::string* why);

// Why the segment is no record that can be attached; empty when it is one. Asked before the library
// attaches it, which would speak on standard error itself and remove what it cannot attach.
std::string objection(int id);

std::optional<Record> attach(const std::string& path, std::string* why);

// Ends the program when none of the sockets leads to a record.
Record attach_first(const std::vector<std::string>& paths);

// Adds "PATH: WHY" to what was found out so far.
void add_reason(std::string* reasons, const std::string& path, const std::string& why);

#endif  // VELORIN_AD_DEBUGCTL_record_
