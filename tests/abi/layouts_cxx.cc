// The layouts as C++ sees them.
#include "layouts.h"

// Users' code allocates it: the process id, then the name.
static_assert(sizeof(Launcher) == sizeof(void*) + sizeof(std::string), "Launcher");
static_assert(alignof(Launcher) == alignof(std::string), "Launcher");
