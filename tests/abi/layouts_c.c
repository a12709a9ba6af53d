/* The layouts as C sees them. */
#include "layouts.h"
