// The reader of zel.conf: builds a verified conf from the open, locked file
// through the generated scanner and parser, and reports their errors with
// the line and a numbered dump of the file.
#include "conf/reader.h"

#include <errno.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <climits>
#include <exception>
#include <string>

#include "conf/reader_state.h"

struct zeld_reader_state zeld_reader;

namespace {

void forget_current_blocks() {
  zeld_reader.target = NULL;
  zeld_reader.auth_group = NULL;
  zeld_reader.portal_group = NULL;
  zeld_reader.lun = NULL;
  zeld_reader.initiator_group = NULL;
}

// Closes the reader's stream (never the caller's descriptor, see
// open_stream) and frees the scanner's buffers, so that nothing of a parse
// outlives it.
void close_input() {
  if (zeld_reader.source != NULL) {
    fclose(zeld_reader.source);
    zeld_reader.source = NULL;
  }
  zeldParser_lex_destroy();
}

// A stream of its own over the locked file. The descriptor is duplicated so
// that closing the stream leaves the caller's descriptor open; the lock
// (flock) belongs to the open file that both share, so it stays held until
// the caller closes its descriptor.
FILE *open_stream(const FileIODescriptor *file) {
  int fd = dup(file->fd);
  if (fd < 0)
    return NULL;
  FILE *stream = fdopen(fd, "r");
  if (stream == NULL) {
    int error = errno;
    close(fd);
    errno = error;
  }
  return stream;
}

// Warnings only: the file may hold CHAP secrets.
void check_permissions(const FileIODescriptor *file) {
  struct stat sb;
  if (fstat(file->fd, &sb) != 0) {
    log_warn("stat");
    return;
  }
  if (sb.st_mode & S_IWOTH)
    log_warnx("%s is world-writable", file->path.c_str());
  else if (sb.st_mode & S_IROTH)
    log_warnx("%s is world-readable", file->path.c_str());
  else if (sb.st_mode & S_IXOTH)
    log_warnx("%s is world-executable", file->path.c_str());
}

// Every conf has the three built-in auth groups and the built-in portal
// group; the file may fill in "default" of each, never redefine them.
bool add_builtin_groups(struct conf *conf) {
  if (auth_group_new(conf, "default") == NULL) {
    log_warn("%s: auth_group_new() for default failed.", "conf_new_from_file");
    return false;
  }
  struct auth_group *ag = auth_group_new(conf, "no-authentication");
  if (ag == NULL) {
    log_warn("%s: auth_group_new() for no-authentication failed.", "conf_new_from_file");
    return false;
  }
  auth_group_set_type(ag, "none");
  ag = auth_group_new(conf, "no-access");
  if (ag == NULL) {
    log_warn("%s: auth_group_new() for no-access failed.", "conf_new_from_file");
    return false;
  }
  auth_group_set_type(ag, "deny");
  if (portal_group_new(conf, "default") == NULL) {
    log_warn("%s: portal_group_new() failed.", "conf_new_from_file");
    return false;
  }
  return true;
}

// Runs the parser over the stream; true when the whole file was accepted.
// An exception that an action or the scanner parked is rethrown here, after
// the stream is closed; the partly built conf stays for ZeldCleanConf.
//
// The scanner gets the whole file in one buffer: reading from the stream,
// it rescans a token from its start each time it refills, which makes a
// long token cost the square of its length.
bool parse_stream(FILE *stream) {
  rewind(stream);
  std::string text;
  char chunk[65536];
  for (size_t n; (n = fread(chunk, 1, sizeof(chunk), stream)) > 0;)
    text.append(chunk, n);
  // The scanner's own words for input it cannot read, thrown as a
  // scanner failure is: with the stream already closed.
  if (ferror(stream) || text.size() > static_cast<size_t>(INT_MAX)) {
    close_input();
    log_errx(1, "%s", "input in flex scanner failed");
  }
  zeldParser_lineno = 1;
  zeldParser__scan_bytes(text.data(), static_cast<int>(text.size()));
  int error = zeldParser_parse();
  forget_current_blocks();
  close_input();
  if (zeld_reader.failure) {
    std::exception_ptr failure = zeld_reader.failure;
    zeld_reader.failure = nullptr;
    std::rethrow_exception(failure);
  }
  return error == 0;
}

// What the file leaves unsaid: an undefined "default" auth group denies
// everyone, an undefined "default" portal group listens on the first
// service interface.
void apply_defaults(struct conf *conf) {
  if (!conf->conf_default_ag_defined) {
    log_debugx("auth-group \"default\" not defined; going with defaults");
    auth_group_set_type(auth_group_find(conf, "default"), "deny");
  }
  if (!conf->conf_default_pg_defined) {
    log_debugx("portal-group \"default\" not defined; going with defaults");
    portal_group_add_listen(portal_group_find(conf, "default"), "nok0:3260", false);
  }
}

// The body of conf_new_from_file; the conf it fills is zeld_reader.conf.
bool read_into(struct conf *conf, const FileIODescriptor *file, struct conf *oldconf) {
  const char *path = file->path.c_str();
  if (oldconf != NULL) {
    struct pport *pp;
    TAILQ_FOREACH(pp, &oldconf->conf_pports, pp_next) pport_copy(pp, conf);
  }
  if (!add_builtin_groups(conf))
    return false;

  FILE *stream = open_stream(file);
  if (stream == NULL) {
    log_warn("unable to open configuration file %s", path);
    return false;
  }
  zeld_reader.source = stream;  // from here on ZeldCleanConf closes it after an exception
  check_permissions(file);
  if (!parse_stream(stream)) {
    log_warn("Failed to parse config file %s", path);
    return false;
  }

  apply_defaults(conf);
  conf->conf_read_from_file = 1;
  if (conf_verify(conf) != 0) {
    log_warn("failed to validate configuration %s", path);
    return false;
  }
  return true;
}

}  // namespace

struct conf *conf_new_from_file(const FileIODescriptor *file, struct conf *oldconf) {
  log_debugx("obtaining configuration from %s", file->path.c_str());
  struct conf *conf = conf_new();
  if (conf == NULL) {
    log_warn("%s: conf_new() failed.", "conf_new_from_file");
    return NULL;
  }
  zeld_reader.conf = conf;
  if (!read_into(conf, file, oldconf)) {
    conf_delete(conf);
    zeld_reader.conf = NULL;
    return NULL;
  }
  zeld_reader.conf = NULL;
  return conf;
}

void ZeldCleanConf(void) {
  forget_current_blocks();
  zeld_reader.failure = nullptr;
  if (zeld_reader.conf != NULL) {
    conf_delete(zeld_reader.conf);
    zeld_reader.conf = NULL;
  }
  close_input();
}

// The dump must not carry credentials into the log: after a "chap"
// keyword the second word (the secret), and after "chap-mutual" the second
// and fourth, are masked, quoted or not, wherever the keyword stands on the
// line.
static void redact_secrets(char *line) {
  static const char *const separators = " \t;{}";
  unsigned secrets = 0;  // bit i set: the i-th word from now is a secret
  char *c = line;
  for (;;) {
    c += strspn(c, separators);
    if (*c == '\0')
      return;
    char *begin = c, *end;
    if (*c == '"') {
      ++begin;
      end = strchr(begin, '"');
      if (end == NULL)
        end = begin + strlen(begin);
      c = *end == '\0' ? end : end + 1;
    } else {
      end = c + strcspn(c, separators);
      c = end;
    }
    const size_t length = static_cast<size_t>(end - begin);
    if (secrets & 1u)
      memset(begin, '*', length);
    secrets >>= 1;
    if (length == 4 && strncmp(begin, "chap", 4) == 0)
      secrets = 0x2;  // user, secret
    else if (length == 11 && strncmp(begin, "chap-mutual", 11) == 0)
      secrets = 0xA;  // user, secret, mutual user, mutual secret
  }
}

void zeldParser_error(const char *message) {
  log_warnx("error in configuration file at line %d near '%s': %s", zeldParser_lineno,
            zeldParser_text != NULL ? zeldParser_text : "", message);
  FILE *in = zeld_reader.source;
  if (in == NULL)
    return;

  log_warnx("Dumping zel.conf file...");
  long position = ftell(in);
  rewind(in);
  // A line longer than the buffer is logged in pieces under its own number.
  char piece[1024];
  int line = 1;
  while (fgets(piece, sizeof(piece), in) != NULL) {
    size_t length = strlen(piece);
    bool complete = length > 0 && piece[length - 1] == '\n';
    if (complete)
      piece[length - 1] = '\0';
    redact_secrets(piece);
    log_warnx("%d: %s", line, piece);
    if (complete)
      line++;
  }
  clearerr(in);
  fseek(in, position, SEEK_SET);
}

void conf_close_file(FileIODescriptor *file) {
  if (!FileIO_IsValid(*file))
    return;
  if (FileIO_Close(file) != FILEIO_SUCCESS)
    log_warn("close failed for config file");
  else
    log_debugx("unlocked config file");
}
