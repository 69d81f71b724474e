// zelctl commands that change LUNs. As for targets, every check of the
// values is the service's own.
#include <unistd.h>

#include <iostream>
#include <memory>
#include <string>

#include "Cli.h"
#include "Output.h"
#include "Records.h"

namespace zelctl {
namespace {

using HostCtl::Orva::IscsiTarget::LunInfo;
using nlohmann::ordered_json;

// What `lun add` prints of the new LUN without --json.
const char* const kNewLunKeys[] = {"id", "size", "path", "uuid", "naa"};

// The LUN `uuid` of `target` as the service now reports it.
LunInfo FindLun(const std::string& target, const std::string& uuid) {
  std::vector<LunInfo> luns;
  Service()->GetLuns(target, luns, true);
  for (const LunInfo& lun : luns) {
    if (lun.uuid == uuid) return lun;
  }
  throw HostCtl::Lib::Orva::OrvaCtlException("The new LUN " + uuid + " is not listed for target " +
                                             target);
}

std::string LunName(int id, const std::string& target) {
  return "LUN " + std::to_string(id) + " of target " + Printable(target);
}

struct LunChange {
  LunInfo lun;
  int newId = -1;
  std::string newTarget;
};

// The name of the host serving `target`, for the removal's progress line.
std::string OwnerOf(const std::string& target) {
  try {
    const auto info = Service()->GetTargetInfo(target);
    return info.ownerHostName.empty() ? info.ownerHostUuid : info.ownerHostName;
  } catch (const HostCtl::Lib::HostCtlException&) {
    return "the owner host";
  }
}

// While the service waits for the owner to release the disk, it logs one
// line per attempt ending in the attempts so far (a second apart); on a
// terminal that becomes one progress line rewritten in place.
class ReleaseProgress {
 public:
  ReleaseProgress(int id, const std::string& target)
      : shown_(::isatty(STDERR_FILENO) == 1),
        what_(LunName(id, target)),
        owner_(shown_ ? Printable(OwnerOf(target)) : "") {
    if (!shown_) return;
    WatchLog([this](const std::string& line) {
      static const std::string kRetrying = "Retrying... ";
      const size_t at = line.find(kRetrying);
      if (line.find("Can not remove LUN disk") == std::string::npos || at == std::string::npos) {
        return;
      }
      const std::string attempts = line.substr(at + kRetrying.size());
      std::cerr << "\rWaiting for host " << owner_ << " to release " << what_ << ": "
                << attempts.substr(0, attempts.find_first_of("\r\n")) << " s of 30"
                << std::flush;
      drawn_ = true;
    });
  }
  ~ReleaseProgress() {
    if (!shown_) return;
    WatchLog(nullptr);
    if (drawn_) std::cerr << '\n';
  }

 private:
  const bool shown_;
  const std::string what_;
  const std::string owner_;
  bool drawn_ = false;
};

}  // namespace

void AddLunEditCommands(CLI::App& lun, const GlobalOptions& options, int& exitCode) {
  auto created = std::make_shared<LunInfo>();
  CLI::App* add = AddServiceCommand(
      lun, "add", "Create a LUN and its disk in a target", options, exitCode, [&options, created] {
        Service()->AddLun(*created);
        const ordered_json record = ToJson(FindLun(created->target, created->uuid));
        Emit(options.json, record, [&] {
          ordered_json shown = ordered_json::object();
          for (const char* key : kNewLunKeys) shown[key] = record[key];
          PrintKeyValues(std::cout, shown);
        });
      });
  add->add_option("--target", created->target, "Alias of the target")->required()->check(NonEmpty());
  add->add_option("--size", created->size, "Size: a whole number and MB, GB, TB, MiB, GiB or TiB")
      ->required();
  add->add_option("--id", created->id, "LUN number, 0 to 255 (the lowest free one when not given)");
  add->add_option("--alias", created->alias, "Alias of the LUN");
  add->add_option("--policy", created->policy, "Storage policy of the LUN's disk");

  auto changed = std::make_shared<LunChange>();
  CLI::App* update = AddServiceCommand(
      lun, "update", "Change a LUN; what is not given stays as it is", options, exitCode,
      [&options, changed] {
        const int id = changed->lun.id;
        const std::string target = changed->lun.target;
        Service()->UpdateLun(changed->lun, changed->newId, changed->newTarget, true);
        const int nowId = changed->newId == -1 ? id : changed->newId;
        const std::string nowTarget = changed->newTarget.empty() ? target : changed->newTarget;
        ReportDone(options.json, "Updated " + LunName(id, target),
                   [&] { return ToJson(Service()->GetLunInfo(nowTarget, nowId)); });
      });
  update->add_option("--target", changed->lun.target, "Alias of the LUN's target")
      ->required()
      ->check(NonEmpty());
  update->add_option("--id", changed->lun.id, "LUN number")->required();
  // An update that changes nothing would still save zel.conf.
  CLI::Option_group* changes =
      update->add_option_group("Changes", "What to change: at least one of these");
  changes->require_option(1, 0);
  changes->add_option("--alias", changed->lun.alias, "New alias")->check(NonEmpty());
  changes->add_option("--status", changed->lun.status, "online or offline")
      ->check(CLI::IsMember({"online", "offline"}));
  changes->add_option("--new-id", changed->newId, "Renumber the LUN (offline LUNs only)");
  changes->add_option("--new-target", changed->newTarget, "Move the LUN (offline LUNs only)")
      ->check(NonEmpty());
  changes->add_option("--size", changed->lun.size, "Grow the LUN to this size")->check(NonEmpty());
  changes->add_option("--policy", changed->lun.policy, "New storage policy of the LUN's disk")
      ->check(NonEmpty());

  auto removed = std::make_shared<LunInfo>();
  CLI::App* remove = AddServiceCommand(
      lun, "remove", "Remove a LUN and its disk once the serving host has released it", options,
      exitCode, [&options, removed] {
        {
          ReleaseProgress progress(removed->id, removed->target);
          Service()->RemoveLun(static_cast<unsigned>(removed->id), removed->target);
        }
        ReportDone(options.json, "Removed " + LunName(removed->id, removed->target), [&] {
          return ordered_json{{"removed", "lun"}, {"target", removed->target}, {"id", removed->id}};
        });
      });
  remove->add_option("--target", removed->target, "Alias of the LUN's target")
      ->required()
      ->check(NonEmpty());
  remove->add_option("--id", removed->id, "LUN number")->required()->check(CLI::Range(0, 255));
}

}  // namespace zelctl
