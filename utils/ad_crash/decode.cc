// A trace's addresses as functions and source lines. See decode.h.
#include "decode.h"

#include <stdio.h>

#include "common/command.h"
#include "common/text.h"
#include "symbolizer.h"

namespace {

// One address of the trace and what became of it.
struct Address {
  std::string label;  // what is printed in front
  uint64_t value;
  uint64_t instruction;    // in which the thread was: a return address stands behind its call
  const SymbolLine* line;  // null: none
  const Object* object = nullptr;
  Places places = {};
  std::string reason = "";  // why something is missing
};

struct Sections {
  std::vector<Address> crash;
  std::vector<Address> frames;
  std::vector<Address> backtrace;

  std::vector<std::vector<Address>*> all() { return {&crash, &frames, &backtrace}; }
};

// The return addresses of a backtrace, except for two: that of the frame which faulted is the
// instruction itself, and the kernel lets the handler return to the first instruction of the
// trampoline in front of it.
bool is_return_address(const Trace& trace, size_t index) {
  const auto is_crash = [&](size_t i) {
    return i < trace.symbols.size() && trace.crash && trace.symbols[i].address == *trace.crash;
  };
  return !is_crash(index) && !is_crash(index + 1);
}

Sections addresses_of(const Trace& trace) {
  Sections sections;
  if (trace.crash) sections.crash.push_back({"", *trace.crash, *trace.crash, nullptr});
  for (const FrameLine& frame : trace.frames) {
    if (frame.address == 0) continue;  // the first line's
    char label[16];
    (void)snprintf(label, sizeof label, "%02d ", frame.number);
    sections.frames.push_back({label, frame.address, frame.address - 1, nullptr});
  }
  for (size_t i = 0; i < trace.symbols.size(); ++i) {
    const SymbolLine& line = trace.symbols[i];
    const uint64_t back = is_return_address(trace, i) && line.address != 0 ? 1 : 0;
    sections.backtrace.push_back({"", line.address, line.address - back, &line});
  }
  return sections;
}

// ---- Which object ----

bool lies_in(const Object& object, uint64_t instruction) {
  if (!object.base || (object.elf->bits == 32 && instruction > UINT32_MAX)) return false;
  return object.elf->has_code_at(object.elf->file_address(instruction, *object.base));
}

void find_object(const std::vector<Object>& objects, Address* address) {
  const bool named = address->line != nullptr && !address->line->path.empty();
  for (const Object& object : objects) {
    if (named ? object.path != address->line->path : !lies_in(object, address->instruction))
      continue;
    address->object = &object;
    address->reason = object.problem;
    if (address->reason.empty() && !lies_in(object, address->instruction))
      address->reason = "outside the object's code";
    return;
  }
  address->reason = "in no object whose load address is known";
}

// ---- Which place ----

const char* reason_of_no_line(const Elf& elf) {
  if (elf.has_line_table) return "no source line for this address";
  if (elf.symbols.size > 0) return "no debug information";
  // addr2line then takes exported functions only, however far away they are.
  return "no debug information, the exported name before it";
}

void find_places_in(const Object& object, const std::vector<Address*>& addresses, bool* ok) {
  if (addresses.empty()) return;
  std::vector<uint64_t> values;
  for (const Address* address : addresses)
    values.push_back(object.elf->file_address(address->instruction, *object.base));
  std::string why;
  const std::optional<std::vector<Places>> places = find_places(object.file, values, &why);
  if (!places) {
    complain(visible(object.file) + ": " + why);
    *ok = false;
  }
  const char* const no_line = reason_of_no_line(*object.elf);
  for (size_t i = 0; i < addresses.size(); ++i) {
    if (places) addresses[i]->places = (*places)[i];
    addresses[i]->reason = places ? no_line : why;
  }
}

void demangle_all(Sections* sections, bool* ok) {
  std::vector<Place*> places;
  std::vector<std::string> names;
  for (std::vector<Address>* section : sections->all()) {
    for (Address& address : *section) {
      if (address.places.empty()) address.places.emplace_back();
      // What glibc found in the memory of the process, without its offset.
      Place& outer = address.places.back();
      if (outer.function.empty() && address.line != nullptr) outer.function = address.line->symbol;
      for (Place& place : address.places) {
        if (place.function.empty()) continue;
        places.push_back(&place);
        names.push_back(place.function);
      }
    }
  }
  if (names.empty()) return;
  std::string why;
  const std::optional<std::vector<std::string>> texts = demangle(names, &why);
  if (!texts) {
    complain(why + "; C++ names stay as the linker has them");
    *ok = false;
    return;
  }
  for (size_t i = 0; i < places.size(); ++i) places[i]->function = (*texts)[i];
}

// ---- Output ----

std::string text_of(const Place& place, const std::string& reason) {
  std::string text = place.function.empty() ? "??" : visible(place.function);
  if (!place.line.empty()) return text + " at " + visible(place.line);
  return text + (place.function.empty() ? "" : " at ??") + " (" + reason + ")";
}

void print_addresses(const char* title, const std::vector<Address>& addresses) {
  if (addresses.empty()) return;
  (void)printf("%s\n", title);
  for (const Address& address : addresses) {
    (void)printf("  %s%s  %s\n", address.label.c_str(), hex_number(address.value).c_str(),
                 text_of(address.places[0], address.reason).c_str());
    for (size_t i = 1; i < address.places.size(); ++i)
      (void)printf("    inlined into %s\n", text_of(address.places[i], address.reason).c_str());
  }
}

void print_object(const Object& object) {
  (void)printf("object: %s%s\n", visible(object.path).c_str(),
               object.is_program ? " (the program)" : "");
  if (!object.file.empty() && object.file != object.path)
    (void)printf("  file: %s\n", visible(object.file).c_str());
  if (object.elf)
    (void)printf("  build id: %s\n",
                 object.elf->build_id.empty() ? "none" : hex_bytes(object.elf->build_id).c_str());
  if (object.base) (void)printf("  load base: %s\n", hex_number(*object.base).c_str());
  for (const std::string& remark : object.remarks) (void)printf("  %s\n", remark.c_str());
  if (!object.problem.empty()) (void)printf("  not decoded: %s\n", object.problem.c_str());
}

bool check_build_ids(const std::vector<Object>& objects, const Hints& hints) {
  bool ok = true;
  bool has_program = false;
  for (const Object& object : objects) {
    has_program = has_program || (object.is_program && object.elf);
    if (!object.wrong_build) continue;
    complain(visible(object.path) + ": " + object.problem);
    ok = false;
  }
  if (!hints.build_id || has_program) return ok;
  complain("--build-id was not checked: the program's file is not known; name it with --program");
  return false;
}

}  // namespace

bool decode(const Trace& trace, const Origin& origin, const Hints& hints) {
  Sections sections = addresses_of(trace);
  const std::vector<Object> objects = objects_of(trace, origin, hints);
  for (const Object& object : objects) print_object(object);
  bool ok = check_build_ids(objects, hints);

  for (std::vector<Address>* section : sections.all())
    for (Address& address : *section) find_object(objects, &address);
  for (const Object& object : objects) {
    std::vector<Address*> of_object;
    for (std::vector<Address>* section : sections.all())
      for (Address& address : *section)
        if (address.object == &object && address.reason.empty()) of_object.push_back(&address);
    find_places_in(object, of_object, &ok);
  }
  demangle_all(&sections, &ok);

  print_addresses("crash:", sections.crash);
  print_addresses("frames:", sections.frames);
  print_addresses("backtrace:", sections.backtrace);
  if (!sections.crash.empty() || !sections.frames.empty() || !sections.backtrace.empty()) return ok;
  complain("the trace holds no address");
  return false;
}
