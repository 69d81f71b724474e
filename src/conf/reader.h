// The reader of zel.conf and the locked opens that ConfHandle uses.
//
// The generated scanner and parser keep global state: one parse at a time
// per process. Callers hold ConfHandle::_fileLock around conf_new_from_file
// and ZeldCleanConf.
#pragma once

#include "conf/conf.h"
#include "platform/FileIO.h"

// Parses the open file into a verified conf. Returns null after logging the
// reason; throws OrvaCtlException on allocation failures and malformed
// initiator portals (the caller then runs ZeldCleanConf). `oldconf` lends
// its pports to the new conf and may be null. The descriptor stays open and
// keeps its lock.
struct conf *conf_new_from_file(const FileIODescriptor *file, struct conf *oldconf);

// Forgets a parse that ended by an exception: deletes the partly built conf
// and closes the reader's stream.
void ZeldCleanConf(void);

// Open `path` under a shared or exclusive advisory lock, retrying while the
// lock is held elsewhere or the file is missing, for about `timeout_ms`.
// Return 0 or the file layer's result.
int conf_file_open_share_lock(const char *path, FileIODescriptor *file, int timeout_ms);
int conf_file_open_exclusive_lock(const char *path, FileIODescriptor *file, int timeout_ms);

// Closes a valid descriptor, releasing its lock.
void conf_close_file(FileIODescriptor *file);

// The parser's error report: the line, the token and the message, then the
// numbered text of the whole file.
void zeldParser_error(const char *message);
