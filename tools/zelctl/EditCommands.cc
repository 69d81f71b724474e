// zelctl commands that change targets and initiator groups (and, through
// LunCommands.cc, LUNs). Every check of
// the values is the service's own: the command line only gathers them, so
// an operator sees the same message as any other client of the service.
#include <iostream>
#include <memory>
#include <string>
#include <vector>

#include "Cli.h"
#include "Output.h"
#include "Records.h"

namespace zelctl {
namespace {

using HostCtl::Orva::IscsiTarget::TargetCreateParam;
using nlohmann::ordered_json;

// Options that adding and changing a target share. The port keeps its
// default of 3260 unless given: the service accepts another port only
// together with an interface.
void AddTargetSettingOptions(CLI::App* command, TargetCreateParam& param,
                             const std::string& affinityHelp) {
  command->add_option("--interface", param.networkInterface,
                      "Network interface the target listens on");
  command
      ->add_option("--port", param.port,
                   "TCP port on the interface (only 3260 without --interface)")
      ->capture_default_str();
  command->add_option("--auth-type", param.authType, "No-Authentication, CHAP or CHAP-Mutual");
  command->add_option("--userid", param.userid, "CHAP user name");
  command->add_option("--secret", param.secret, "CHAP secret ('-' reads it from stdin)");
  command->add_option("--mutual-userid", param.mutualUserid, "Mutual CHAP user name");
  command->add_option("--mutual-secret", param.mutualSecret,
                      "Mutual CHAP secret ('-' reads it from stdin, after --secret's line)");
  command->add_option("--affinity", param.faultDomain, affinityHelp);
  command->add_option("--policy", param.policy, "Storage policy of the target's namespace");
}

// Replaces a "-" secret by its line on stdin, the secret before the mutual
// secret. Done when the command runs, so that a usage error reads nothing.
void ReadSecrets(TargetCreateParam& param) {
  param.secret = SecretArgument(param.secret);
  param.mutualSecret = SecretArgument(param.mutualSecret);
}

void AddTargetEditCommands(CLI::App& target, const GlobalOptions& options, int& exitCode) {
  auto created = std::make_shared<TargetCreateParam>();
  CLI::App* add = AddServiceCommand(
      target, "add",
      "Create a target owned by this host; without --auth-type it uses the defaults' "
      "authentication, without --interface the default interface",
      options, exitCode, [&options, created] {
        ReadSecrets(*created);
        Service()->AddTarget(*created);
        const ordered_json record{
            {"alias", created->alias}, {"iqn", created->iqn}, {"uuid", created->uuid}};
        Emit(options.json, record, [&] { PrintKeyValues(std::cout, record); });
      });
  add->add_option("--alias", created->alias, "Alias of the new target")
      ->required()
      ->check(NonEmpty());
  add->add_option("--iqn", created->iqn, "Target IQN (generated when not given)");
  AddTargetSettingOptions(add, *created, "Site the target belongs to: Preferred or NonPreferred");
  // Each occurrence of a repeatable option takes one name, so that a
  // positional argument after it is never taken for another name.
  add->add_option("--initiator", created->initiatorsToAdd,
                  "Initiator IQN or initiator-group name allowed to log in (repeatable)")
      ->allow_extra_args(false)
      ->check(NonEmpty());

  auto changed = std::make_shared<TargetCreateParam>();
  CLI::App* update = AddServiceCommand(
      target, "update",
      "Change a target; what is not given stays as it is (--auth-type replaces the "
      "credentials)",
      options, exitCode, [&options, changed] {
        ReadSecrets(*changed);
        Service()->UpdateTargetConfig(*changed);
        const std::string now = changed->newAlias.empty() ? changed->alias : changed->newAlias;
        ReportDone(options.json,
                   "Updated target " + Printable(changed->alias) +
                       (now == changed->alias ? "" : ", now named " + Printable(now)),
                   [&] { return ToJson(Service()->GetTargetInfo(now)); });
      });
  update->add_option("ALIAS", changed->alias, "Alias of the target to change")
      ->required()
      ->check(NonEmpty());
  // An update that changes nothing would still save zel.conf and raise its
  // generation, which every host then re-reads.
  CLI::Option_group* changes =
      update->add_option_group("Changes", "What to change: at least one of these");
  changes->require_option(1, 0);
  changes->add_option("--new-alias", changed->newAlias, "Rename the target")->check(NonEmpty());
  AddTargetSettingOptions(changes, *changed,
                          "Site the target belongs to: Preferred, NonPreferred, or None to clear");
  changes
      ->add_option("--add-initiator", changed->initiatorsToAdd,
                   "Allow an initiator IQN or initiator group (repeatable)")
      ->allow_extra_args(false)
      ->check(NonEmpty());
  changes
      ->add_option("--remove-initiator", changed->initiatorsToRemove,
                   "Withdraw an initiator IQN or initiator group (repeatable)")
      ->allow_extra_args(false)
      ->check(NonEmpty());

  auto removed = std::make_shared<std::string>();
  AddServiceCommand(target, "remove", "Remove a target that has no LUNs left", options, exitCode,
                    [&options, removed] {
                      Service()->RemoveTarget(*removed);
                      ReportDone(options.json, "Removed target " + Printable(*removed), [&] {
                        return ordered_json{{"removed", "target"}, {"alias", *removed}};
                      });
                    })
      ->add_option("ALIAS", *removed, "Target alias")
      ->required()
      ->check(NonEmpty());
}

struct GroupMembers {
  std::string name;
  std::vector<std::string> initiators;
};

// The group as the change left it, for --json.
ordered_json GroupRecord(const std::string& name) {
  return ToJson(Service()->GetInitiatorgroupInfo(name));
}

std::string Initiators(size_t count) {
  return std::to_string(count) + (count == 1 ? " initiator" : " initiators");
}

void AddGroupEditCommands(CLI::App& group, const GlobalOptions& options, int& exitCode) {
  auto name = std::make_shared<std::string>();
  AddServiceCommand(group, "add", "Create an empty initiator group", options, exitCode,
                    [&options, name] {
                      Service()->AddInitiatorgroup(*name);
                      ReportDone(options.json, "Added initiator group " + Printable(*name),
                                 [&] { return GroupRecord(*name); });
                    })
      ->add_option("NAME", *name, "Group name (not all digits, not starting with iqn. or eui.)")
      ->required()
      ->check(NonEmpty());

  auto force = std::make_shared<bool>(false);
  CLI::App* remove = AddServiceCommand(
      group, "remove", "Remove an initiator group and every target's reference to it", options,
      exitCode, [&options, name, force] {
        Service()->RemoveInitiatorgroup(*name, *force);
        ReportDone(options.json, "Removed initiator group " + Printable(*name), [&] {
          return ordered_json{{"removed", "initiator-group"}, {"name", *name}};
        });
      });
  remove->add_option("NAME", *name, "Group name")->required()->check(NonEmpty());
  remove->add_flag("--force", *force, "Remove the group even while it has members");

  auto members = std::make_shared<GroupMembers>();
  CLI::App* addMembers = AddServiceCommand(
      group, "add-initiators", "Add initiators to a group", options, exitCode, [&options, members] {
        Service()->AddInitiatorsToInitiatorgroup(members->name, members->initiators);
        ReportDone(options.json,
                   "Added " + Initiators(members->initiators.size()) + " to initiator group " +
                       Printable(members->name),
                   [&] { return GroupRecord(members->name); });
      });
  CLI::App* removeMembers = AddServiceCommand(
      group, "remove-initiators", "Remove initiators from a group", options, exitCode,
      [&options, members] {
        Service()->RemoveInitiatorsFromInitiatorgroup(members->name, members->initiators);
        ReportDone(options.json,
                   "Removed " + Initiators(members->initiators.size()) + " from initiator group " +
                       Printable(members->name),
                   [&] { return GroupRecord(members->name); });
      });
  for (CLI::App* command : {addMembers, removeMembers}) {
    command->add_option("NAME", members->name, "Group name")->required()->check(NonEmpty());
    command->add_option("IQN", members->initiators, "Initiator IQNs")
        ->required()
        ->check(NonEmpty());
  }
}

}  // namespace

void AddEditCommands(CLI::App& app, const GlobalOptions& options, int& exitCode) {
  AddTargetEditCommands(*app.get_subcommand("target"), options, exitCode);
  AddGroupEditCommands(*app.get_subcommand("initiator-group"), options, exitCode);
  AddLunEditCommands(*app.get_subcommand("lun"), options, exitCode);
}

}  // namespace zelctl
