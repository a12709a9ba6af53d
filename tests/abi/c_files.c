/* A C11 program that reads settings through the C interface. Its own fopen stands in for the folder
   that the reader is bound to, in the library too. It exits with 0 when all was as expected. */
#define _GNU_SOURCE
#include <errno.h>
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "expect.h"
#include "velorin/elc"

static const char* contents; /* of the file; null: there is none */
static char opened[64];      /* the path that was asked for */

static FILE* open_contents(const char* path) {
  (void)snprintf(opened, sizeof opened, "%s", path);
  if (contents == NULL) {
    errno = ENOENT;
    return NULL;
  }
  return fmemopen((void*)(uintptr_t)contents, strlen(contents), "r");
}

/* Both names that the call has, by the width of offsets. */
FILE* fopen(const char* restrict path, const char* restrict mode) {
  (void)mode;
  return open_contents(path);
}
FILE* fopen64(const char* restrict path, const char* restrict mode) {
  (void)mode;
  return open_contents(path);
}

enum { PORT, ON, TEXT, DELTA, COUNT };

static elc_entry table[COUNT];

static const char* read_settings(const char* text) {
  memset(table, 0, sizeof table);
  table[PORT] = (elc_entry){.type = ELC_UINT, .name = "port", .value.UINT_type = 80};
  table[ON] = (elc_entry){.type = ELC_BOOL, .name = "on"};
  table[TEXT] = (elc_entry){.type = ELC_STR, .name = "text"};
  table[DELTA] = (elc_entry){.type = ELC_INT, .name = "delta"};
  contents = text;
  return _elc_init("abi", table, COUNT);
}

static void check_layout(void) {
  unsigned char bytes[sizeof(elc_entry)];
  elc_entry entry;
  EXPECT(ELC_BOOL == 0 && ELC_INT == 1 && ELC_STR == 2 && ELC_UINT == 3);
  EXPECT(offsetof(elc_entry, name) == sizeof(void*));
  EXPECT(offsetof(elc_entry, value) == 2 * sizeof(void*));
  memset(&entry, 0, sizeof entry);
  entry.is_set = 1;
  entry.type = ELC_UINT;
  memcpy(bytes, &entry, sizeof bytes);
  EXPECT(bytes[0] == 1 && bytes[1] == 3 && bytes[2] == 0 && bytes[3] == 0);
}

static void read_every_type(void) {
  EXPECT(read_settings("port 0x1F\non yes\ntext \"x y\" z\"\ndelta -5\n") == NULL);
  EXPECT(strcmp(opened, "/local/local1/elc/abi.elc") == 0);
  EXPECT(table[PORT].is_set && table[PORT].value.UINT_type == 31);
  EXPECT(table[ON].is_set && table[ON].value.BOOL_type);
  EXPECT(table[TEXT].is_set && strcmp(table[TEXT].value.STR_type, "x y\" z") == 0);
  EXPECT(table[DELTA].is_set && table[DELTA].value.INT_type == -5);
  EXPECT(table[TEXT].type == ELC_STR); /* its neighbour in the record was set */
  free(table[TEXT].value.STR_type);
}

static void read_nothing(void) {
  EXPECT(read_settings(NULL) == NULL);
  EXPECT(!table[PORT].is_set && table[PORT].value.UINT_type == 80);
}

static void read_faults(void) {
  const char* message = read_settings("on 1\nport 12abc\n");
  EXPECT(message != NULL);
  EXPECT(strcmp(message, "/local/local1/elc/abi.elc:2:8: Invalid number") == 0);
  EXPECT(table[ON].is_set && !table[PORT].is_set);
}

int main(void) {
  check_layout();
  read_every_type();
  read_nothing();
  read_faults();
  return failures != 0;
}
