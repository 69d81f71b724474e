#include "DaemonState.h"

#include <filesystem>
#include <fstream>
#include <iterator>
#include <system_error>
#include <vector>

namespace zelctl {
namespace {

namespace fs = std::filesystem;

// The arguments of the process, as the NUL-separated strings of its
// command line.
std::vector<std::string> Arguments(const std::string& proc) {
  std::ifstream in(proc + "/cmdline", std::ios::binary);
  const std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  std::vector<std::string> strings;
  for (size_t at = 0; at < text.size();) {
    const size_t end = text.find('\0', at);
    strings.push_back(text.substr(at, end == std::string::npos ? std::string::npos : end - at));
    if (end == std::string::npos) break;
    at = end + 1;
  }
  return strings;
}

bool IsZombie(const std::string& proc) {
  std::ifstream in(proc + "/stat");
  const std::string stat((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  const size_t end = stat.rfind(") ");
  return end == std::string::npos || stat[end + 2] == 'Z' || stat[end + 2] == 'X';
}

// The program file the process runs ends in "zeld"; the kernel appends
// " (deleted)" when that file was replaced since.
bool RunsZeld(const std::string& proc) {
  std::error_code error;
  std::string exe = fs::read_symlink(proc + "/exe", error).string();
  const std::string deleted = " (deleted)";
  if (exe.size() > deleted.size() &&
      exe.compare(exe.size() - deleted.size(), deleted.size(), deleted) == 0) {
    exe.resize(exe.size() - deleted.size());
  }
  return !error && fs::path(exe).filename() == "zeld";
}

// The home given to zeld with --home; the init script and the unit file
// both start it so, with an absolute path. "" when there is none.
std::string DaemonHome(const std::string& proc) {
  const std::vector<std::string> arguments = Arguments(proc);
  for (size_t i = 1; i < arguments.size(); ++i) {
    if (arguments[i] == "--home" && i + 1 < arguments.size()) return arguments[i + 1];
    if (arguments[i].rfind("--home=", 0) == 0) return arguments[i].substr(7);
  }
  return "";
}

bool SamePath(const std::string& a, const std::string& b) {
  std::error_code error;
  return fs::equivalent(a, b, error) && !error;
}

// "running" when every engine instance runs, "idle" when there is nothing
// to serve (no engine is needed), else the portals whose engine does not run.
std::string EngineState(const nlohmann::json& engines) {
  std::string down;
  for (const nlohmann::json& engine : engines) {
    if (engine.value("running", false)) continue;
    down += (down.empty() ? "" : ", ") + engine.value("portal", std::string("?"));
  }
  if (engines.empty()) return "idle (nothing to serve)";
  return down.empty() ? "running" : "not running on " + down;
}

}  // namespace

nlohmann::ordered_json DaemonReport(const std::string& home) {
  std::ifstream in(home + "/run/zeld-status.json");
  const nlohmann::json status = nlohmann::json::parse(in, nullptr, /*allow_exceptions=*/false);
  if (!status.is_object()) return nlohmann::ordered_json::object();
  const nlohmann::json last = status.value("lastReconcile", nlohmann::json::object());
  nlohmann::ordered_json report{
      {"engine", EngineState(status.value("engines", nlohmann::json::array()))},
      {"servedTargets", status.value("served", nlohmann::json::array())},
      {"redirectedTargets", status.value("redirected", nlohmann::json::array())},
      {"lastReconcile", last.value("at", std::string()) + " " + last.value("result", std::string())}};
  const nlohmann::json problems = status.value("problems", nlohmann::json::array());
  if (!problems.empty()) report["problems"] = problems;
  return report;
}

bool HomeDaemonRunning(const std::string& home) {
  std::ifstream pidFile(home + "/run/zeld.pid");
  long pid = 0;
  if (!(pidFile >> pid) || pid <= 0) return false;
  const std::string proc = "/proc/" + std::to_string(pid);
  return !IsZombie(proc) && RunsZeld(proc) && SamePath(DaemonHome(proc), home);
}

}  // namespace zelctl
