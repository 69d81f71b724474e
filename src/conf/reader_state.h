// State that the generated scanner and parser share with the reader's entry
// points (reader.cc). It is global because the generated code is: one parse
// at a time per process, serialised by ConfHandle::_fileLock.
#pragma once

#include <stdio.h>

#include <exception>

#include "conf/conf.h"

struct zeld_reader_state {
  // The stream of the file being read, owned: the scanner reads a copy of
  // its text, the syntax-error dump reads it again.
  FILE *source;

  // The conf being built. Owned here until conf_new_from_file hands it out
  // or deletes it; after an exception ZeldCleanConf deletes it.
  struct conf *conf;

  // The block being read; each is null outside its block. They point into
  // `conf` and own nothing.
  struct target *target;
  struct auth_group *auth_group;
  struct portal_group *portal_group;
  struct lun *lun;
  struct initiator_group *initiator_group;

  // An exception raised inside the parser, parked until the parser has
  // returned (see the note in parse.y).
  std::exception_ptr failure;
};

extern struct zeld_reader_state zeld_reader;

// The generated scanner and parser.
extern char *zeldParser_text;
extern int zeldParser_lineno;
struct yy_buffer_state;
struct yy_buffer_state *zeldParser__scan_bytes(const char *bytes, int length);
int zeldParser_lex_destroy(void);
int zeldParser_parse(void);
