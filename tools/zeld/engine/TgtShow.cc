#include "zeld/engine/TgtShow.h"

#include <cstdlib>
#include <sstream>

#include "zel/OrvaCtlException.h"

namespace zeltools {
namespace engine {
namespace {

using HostCtl::Lib::Orva::OrvaCtlException;

enum class Section { kNone, kSystem, kNexus, kLuns, kAccounts, kAcl };

size_t Indent(const std::string& line) { return line.find_first_not_of(' '); }

bool StartsWith(const std::string& text, const std::string& prefix) {
  return text.compare(0, prefix.size(), prefix) == 0;
}

[[noreturn]] void Malformed(int lineNumber, const std::string& line) {
  throw OrvaCtlException("Unexpected line " + std::to_string(lineNumber) +
                         " in the engine's target list: '" + line + "'");
}

// "Key: value" -> value when the line is that key's.
bool Field(const std::string& line, const char* key, std::string* value) {
  std::string prefix = std::string(key) + ":";
  if (!StartsWith(line, prefix)) return false;
  size_t start = line.find_first_not_of(' ', prefix.size());
  *value = start == std::string::npos ? "" : line.substr(start);
  return true;
}

bool ParseNumber(const std::string& text, uint64_t* value) {
  if (text.empty() || text.find_first_not_of("0123456789") != std::string::npos) return false;
  *value = std::strtoull(text.c_str(), nullptr, 10);
  return true;
}

}  // namespace

const TgtLunView* TgtTargetView::FindLun(uint64_t lun) const {
  for (const TgtLunView& view : luns) {
    if (view.lun == lun) return &view;
  }
  return nullptr;
}

std::vector<TgtTargetView> ParseTargetShow(const std::string& text) {
  std::vector<TgtTargetView> targets;
  Section section = Section::kNone;
  std::istringstream lines(text);
  std::string raw;
  int lineNumber = 0;
  while (std::getline(lines, raw)) {
    ++lineNumber;
    size_t indent = Indent(raw);
    if (indent == std::string::npos) continue;  // blank, or the trailing " "
    std::string line = raw.substr(indent);
    if (indent == 0) {
      uint64_t tid;
      size_t colon = line.find(": ");
      if (!StartsWith(line, "Target ") || colon == std::string::npos ||
          !ParseNumber(line.substr(7, colon - 7), &tid)) {
        Malformed(lineNumber, raw);
      }
      targets.emplace_back();
      targets.back().tid = static_cast<int>(tid);
      targets.back().name = line.substr(colon + 2);
      section = Section::kNone;
      continue;
    }
    if (targets.empty()) Malformed(lineNumber, raw);
    TgtTargetView& target = targets.back();
    if (indent == 4) {
      if (line == "System information:")
        section = Section::kSystem;
      else if (line == "I_T nexus information:")
        section = Section::kNexus;
      else if (line == "LUN information:")
        section = Section::kLuns;
      else if (line == "Account information:")
        section = Section::kAccounts;
      else if (line == "ACL information:")
        section = Section::kAcl;
      else
        section = Section::kNone;  // a section this reader does not need
      continue;
    }
    std::string value;
    switch (section) {
      case Section::kSystem:
        if (indent == 8 && Field(line, "State", &value)) target.state = value;
        break;
      case Section::kLuns:
        if (indent == 8) {
          uint64_t lun;
          if (!Field(line, "LUN", &value) || !ParseNumber(value, &lun)) Malformed(lineNumber, raw);
          target.luns.emplace_back();
          target.luns.back().lun = lun;
        } else if (indent == 12) {
          if (target.luns.empty()) Malformed(lineNumber, raw);
          TgtLunView& lun = target.luns.back();
          if (Field(line, "Type", &value))
            lun.type = value;
          else if (Field(line, "SCSI ID", &value))
            lun.scsiId = value;
          else if (Field(line, "SCSI SN", &value))
            lun.scsiSerial = value;
          else if (Field(line, "Online", &value))
            lun.online = value == "Yes";
          else if (Field(line, "Backing store path", &value)) {
            lun.backingStore = value == "None" ? "" : value;
          }
        }
        break;
      case Section::kAccounts:
        if (indent == 8) {
          const std::string outgoing = " (outgoing)";
          if (line.size() > outgoing.size() &&
              line.compare(line.size() - outgoing.size(), outgoing.size(), outgoing) == 0) {
            target.outgoingUser = line.substr(0, line.size() - outgoing.size());
          } else {
            target.incomingUsers.push_back(line);
          }
        }
        break;
      case Section::kAcl:
        if (indent == 8) target.acl.push_back(line);
        break;
      case Section::kNexus:
      case Section::kNone:
        break;
    }
  }
  return targets;
}

void ParseTargetParameters(const std::string& text, TgtTargetView* target) {
  target->redirect = TgtRedirectView();
  std::istringstream lines(text);
  std::string line;
  while (std::getline(lines, line)) {
    size_t equals = line.find('=');
    if (equals == std::string::npos) continue;
    std::string key = line.substr(0, equals);
    std::string value = line.substr(equals + 1);
    if (key == "RedirectAddress")
      target->redirect.address = value;
    else if (key == "RedirectPort")
      target->redirect.port = value;
    else if (key == "RedirectReason")
      target->redirect.reason = value;
  }
  // Without an address the other two are leftovers of an earlier setting.
  if (target->redirect.address.empty()) target->redirect = TgtRedirectView();
}

TgtResult ReadServedTargets(const TgtControl& control, std::vector<TgtTargetView>* targets) {
  TgtResult result = control.ShowTargets();
  if (!result.ok()) return result;
  *targets = ParseTargetShow(result.output);
  for (TgtTargetView& target : *targets) {
    TgtResult parameters = control.ShowTarget(target.tid);
    if (!parameters.ok()) return parameters;
    ParseTargetParameters(parameters.output, &target);
  }
  return result;
}

}  // namespace engine
}  // namespace zeltools
