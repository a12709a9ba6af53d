// Settings in a file of pairs, saved so that a reader never sees half of them. Works in the folder
// that is its argument.
#include <iostream>
#include <string>

#include <velorin/Exception>
#include <velorin/FileUtilities>
#include <velorin/Properties>
#include <velorin/unixFile>

namespace {

// Saves to a temporary name and puts that in the place of `name` in one step.
void saveAtOnce(velorin::Properties& settings, const std::string& name) {
  const std::string temporary = name + ".new";
  if (settings.save(temporary) != 0) throw Exception("Cannot save " + temporary);
  // A full disk is not reported by save: what was written has to be there.
  velorin::Properties saved;
  saved.load(temporary);
  for (const std::string& key : settings.getKeys()) {
    if (!saved.contains(key) || saved.get(key) != settings.get(key))
      throw Exception("Cannot save " + temporary);
  }
  renameFile(temporary, name);
}

void run(const std::string& name) {
  velorin::Properties settings;
  settings.set("name", "box")->set("port", "8080");  // the defaults
  if (settings.load(name) < 0) std::cout << "no file yet: the defaults\n";

  settings.set("filter", "host=10.0.0.1")->set("port", "8008");
  saveAtOnce(settings, name);

  velorin::Properties again;
  again.load(name);
  for (const std::string& key : again.getKeys()) std::cout << key + ": " + again.get(key) + "\n";
  std::cout << "the file:\n";
  again.save(std::cout);
}

}  // namespace

int main(int argc, char** argv) {
  try {
    run(appendSlash(argc > 1 ? argv[1] : ".") + "settings");
  } catch (const Exception& e) {
    e.caught(__FILE_NAME__, __LINE__);
    return 1;
  }
  return 0;
}
