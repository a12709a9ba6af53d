// The records of the sockets that were at a path before the one that is there now.
#ifndef VELORIN_AD_LOGD_former_records_
#define VELORIN_AD_LOGD_former_records_

#include <stdint.h>
#include <sys/types.h>

#include <array>
#include <string>
#include <vector>

#include "velorin/ad_debug"

// The segment of a record. Its id alone can come to mean another segment, after a reboot for
// instance.
struct RecordSegment {
  int id = -1;
  key_t key = 0;
  int64_t made = 0;  // seconds since 1970

  bool operator==(const RecordSegment& other) const {
    return id == other.id && key == other.key && made == other.made;
  }
};

// A daemon that makes its socket anew makes, as a rule, a new record, while processes stay attached
// to the one that they know. What the daemon knows of the records of its former sockets lies in a
// file beside the socket, so that the next one can go on.
class FormerRecords {
 public:
  // Finds and attaches the former records of the socket `path` and reads their settings. Called
  // before a new socket replaces the file that is there: a socket of this user that a killed daemon
  // left behind leads to a record too.
  void recall(const std::string& path);

  // Makes `record`, which belongs to the socket that is there now, have the settings of the last
  // one, and begins to keep the others in step with it. `other` is not a former record although it
  // may have been one: it belongs to the daemon's other socket.
  void follow(ad_debug_cfg_t* record, const RecordSegment& current, const RecordSegment& other);

  bool any() const { return current_ != nullptr && !formers_.empty(); }

  // Makes a change of one record in the others too, and removes those that nobody uses any more.
  // Returns: whether there are fewer now.
  bool keepInStep();

  // Writes the file for the next daemon; says so when it cannot. Nothing before follow.
  void save() const;

 private:
  struct Former {
    RecordSegment segment;
    ad_debug_cfg_t* record;
    int unused = 0;  // how often it was looked at in a row and used by nobody
  };
  static constexpr size_t kSettings = 3;
  using Settings = std::array<uint32_t, kSettings>;

  void add(const RecordSegment& segment);
  void addListed();
  void takeOver();
  void forgetForeign();
  uint32_t changed(size_t setting) const;
  bool removeUnused(Former* former) const;
  void sayFollowing() const;

  std::string path_;
  std::vector<RecordSegment> listed_;  // that the file beside the socket named
  std::vector<Former> formers_;        // the last socket's first
  ad_debug_cfg_t last_ = {};           // what its record held, when there is one
  ad_debug_cfg_t* current_ = nullptr;
  RecordSegment current_segment_;
  Settings in_step_ = {};  // what all records held at the last look
};

// Returns: the segment of the record that the socket `path` leads to; with the id -1 when there is
// none.
RecordSegment segmentOf(const char* path);

#endif  // VELORIN_AD_LOGD_former_records_
