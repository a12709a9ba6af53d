// Commands that show and change the record.
#ifndef VELORIN_AD_DEBUGCTL_record_commands_
#define VELORIN_AD_DEBUGCTL_record_commands_

#include "record.h"
#include "request.h"

void show(const Request& request, const Record& record);

// Store the request's value.
void set_level(const Request& request, const Record& record);
void set_client(const Request& request, const Record& record);
void set_server(const Request& request, const Record& record);

// Prints the record, then each change, until SIGINT or SIGTERM.
void watch(const Request& request, const Record& record);

#endif  // VELORIN_AD_DEBUGCTL_record_commands_
