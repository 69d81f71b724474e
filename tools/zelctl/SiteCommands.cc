// zelctl commands about the sites of a stretched cluster: which fault
// domain is the preferred site. Every host reads it from the cluster
// directory, so setting it on one host sets it for all.
#include <iostream>
#include <memory>
#include <string>

#include "Cli.h"
#include "Output.h"
#include "platform/Host.h"
#include "platform/HostServices.h"
#include "zel/OrvaCtlException.h"

namespace zelctl {
namespace {

using HostCtl::Lib::Orva::OrvaCtlException;
using nlohmann::ordered_json;

void SetPreferredSite(const std::string& name) {
  bool named = false;
  for (const auto& member : OrvaInfoImpl::GetClusterInfo().members) {
    named = named || member.faultDomain == name;
  }
  // A site no host is in would leave the cluster unstretched while it
  // looks configured.
  if (!named) {
    throw OrvaCtlException("No member of the cluster is in fault domain " + name);
  }
  const NOK_ReturnStatus status =
      zel::platform::CurrentHost().Cluster().SetPreferredFaultDomain(name);
  if (status != NOK_OK) {
    throw OrvaCtlException("Failed to set the preferred site to " + name + ": " +
                           NOK_ReturnStatusToString(status));
  }
}

}  // namespace

void AddSiteCommands(CLI::App& app, const GlobalOptions& options, int& exitCode) {
  CLI::App* cluster = app.add_subcommand("cluster", "The cluster as a whole");
  cluster->require_subcommand(1);
  auto name = std::make_shared<std::string>();
  CLI::App* preferred = AddServiceCommand(
      *cluster, "preferred-site",
      "Set the preferred site of a stretched cluster to fault domain NAME, or show it", options,
      exitCode, [&options, name] {
        if (!name->empty()) SetPreferredSite(*name);
        std::string site;
        std::string uuid;
        OrvaInfoImpl::GetPreferredFaultDomainInfo(&site, &uuid);
        const ordered_json record = {{"preferredSite", site}};
        Emit(options.json, record, [&] { PrintKeyValues(std::cout, record); });
      });
  preferred->add_option("NAME", *name, "A fault domain some member is in")->check(NonEmpty());
}

}  // namespace zelctl
