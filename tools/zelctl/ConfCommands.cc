// zelctl conf: check and format a configuration file exactly as the
// service reads and writes zel.conf.
#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <iostream>
#include <memory>
#include <stdexcept>

#include "Cli.h"
#include "conf/ConfHandle.h"
#include "Output.h"
#include "edit/Parser.h"
#include "service/ConfigBackup.h"

namespace zelctl {
namespace {

using NokCtl::Orva::IscsiTarget::ConfHandle;

// A file named on the command line that is not there fails at once: the
// handle's not-found retries wait out the rename of zel.conf by its writer,
// which a path typed by an operator never is.
void RequireFile(const std::string& file) {
  struct stat status;
  if (::stat(file.c_str(), &status) != 0) {
    throw std::runtime_error("Cannot read " + file + ": " + std::strerror(errno));
  }
  if (S_ISDIR(status.st_mode)) throw std::runtime_error("Cannot read " + file + ": Is a directory");
}

int CheckFile(const std::string& file) {
  RequireFile(file);
  ConfHandle handle(ConfHandle::kShareMode, file);
  return kExitOk;
}

// The text is built in memory first, so a writer failure (a secret too
// long to encode, say) prints nothing on stdout.
int FormatFile(const std::string& file) {
  RequireFile(file);
  ConfHandle handle(ConfHandle::kShareMode, file);
  char* text = nullptr;
  size_t length = 0;
  FILE* buffer = open_memstream(&text, &length);
  if (buffer == nullptr) throw std::runtime_error("out of memory");
  std::unique_ptr<char, decltype(&free)> owned(nullptr, &free);
  try {
    handle._WriteConfigToFile(buffer);
  } catch (...) {
    fclose(buffer);
    owned.reset(text);
    throw;
  }
  fclose(buffer);
  owned.reset(text);
  std::cout.write(text, static_cast<std::streamsize>(length));
  std::cout.flush();
  return kExitOk;
}

}  // namespace

void AddConfCommands(CLI::App& app, const GlobalOptions& options, int& exitCode) {
  CLI::App* conf = app.add_subcommand("conf", "Check or format a configuration file");
  conf->require_subcommand(1);

  auto file = std::make_shared<std::string>();
  CLI::App* check = conf->add_subcommand(
      "check", "Read FILE as the service reads zel.conf; exit 0 when it is a valid configuration");
  check->add_option("FILE", *file, "Configuration file")->required()->check(NonEmpty());
  check->callback([&options, &exitCode, file] {
    SelectHostFor(options);
    exitCode = RunReportingFailure([&] {
      NokCtl::Orva::IscsiTarget::Parser::InitZelParserLib();
      return CheckFile(*file);
    });
  });

  CLI::App* fmt = conf->add_subcommand(
      "fmt", "Print FILE as the service would save it (generation unchanged)");
  fmt->add_option("FILE", *file, "Configuration file")->required()->check(NonEmpty());
  fmt->callback([&options, &exitCode, file] {
    SelectHostFor(options);
    exitCode = RunReportingFailure([&] {
      NokCtl::Orva::IscsiTarget::Parser::InitZelParserLib();
      return FormatFile(*file);
    });
  });

  // Says what it restores before it does: an operator who sees an older
  // generation or fewer targets than expected knows what they got.
  AddServiceCommand(*conf, "restore-backup",
                    "Put this host's backup copy of zel.conf in its place and announce it",
                    options, exitCode, [&options] {
                      namespace Util = NokCtl::Orva::IscsiTarget::Util;
                      const Util::BackupSummary backup = Util::DescribeBackupConfigFile();
                      if (!options.json) std::cout << "Restoring " << Printable(backup.path) << ": generation "
                                << backup.generation << ", " << backup.targets << " target(s), "
                                << backup.luns << " LUN(s)" << std::endl;
                      const uint64_t generation = Util::RestoreBackupConfigFile();
                      ReportDone(options.json,
                                 "Restored zel.conf as generation " + std::to_string(generation),
                                 [&] {
                                   return nlohmann::ordered_json{{"restored", backup.path},
                                                                 {"generation", generation},
                                                                 {"targets", backup.targets},
                                                                 {"luns", backup.luns}};
                                 });
                    });
}

}  // namespace zelctl
