#include "platform/PolicyRules.h"

#include "zel/OrvaCtlException.h"

namespace zel {
namespace platform {
namespace {

bool Fail(std::string* why, const std::string& text) {
  *why = text;
  return false;
}

std::string Quote(const std::string& text) { return "\"" + text + "\""; }

// A whole number in [low, high], written in decimal digits only.
bool Number(const std::string& value, int low, int high, int* number) {
  // Nine digits cannot overflow an int; more are out of every range here.
  if (value.empty() || value.size() > 9) return false;
  for (char c : value) {
    if (c < '0' || c > '9') return false;
  }
  *number = std::stoi(value);
  return *number >= low && *number <= high;
}

// Reads the double-quoted text that starts at `*pos` and moves past it.
bool QuotedText(const std::string& text, size_t* pos, std::string* token, std::string* why) {
  const size_t close = text.find('"', *pos + 1);
  if (close == std::string::npos) {
    return Fail(why, "unterminated quoted text at offset " + std::to_string(*pos));
  }
  *token = text.substr(*pos + 1, close - *pos - 1);
  *pos = close + 1;
  return true;
}

bool Apply(const std::string& name, const std::string& value, PolicyRules* rules,
           std::string* why) {
  const std::string rule = "rule " + Quote(name);
  auto once = [&](bool given) {
    return given ? Fail(why, rule + " is given twice") : true;
  };
  if (name == "locality") {
    if (!once(rules->locality.has_value())) return false;
    if (value != "Preferred" && value != "NonPreferred") {
      return Fail(why, rule + " takes Preferred or NonPreferred, not " + Quote(value));
    }
    rules->locality = value;
  } else if (name == "failuresToTolerate") {
    if (!once(rules->failuresToTolerate.has_value())) return false;
    int number = 0;
    if (!Number(value, 0, 3, &number)) {
      return Fail(why, rule + " takes a whole number from 0 to 3, not " + Quote(value));
    }
    rules->failuresToTolerate = number;
  } else if (name == "stripeWidth") {
    if (!once(rules->stripeWidth.has_value())) return false;
    int number = 0;
    if (!Number(value, 1, 12, &number)) {
      return Fail(why, rule + " takes a whole number from 1 to 12, not " + Quote(value));
    }
    rules->stripeWidth = number;
  } else if (name == "thinProvisioned") {
    if (!once(rules->thinProvisioned.has_value())) return false;
    if (value != "true" && value != "false") {
      return Fail(why, rule + " takes true or false, not " + Quote(value));
    }
    rules->thinProvisioned = value == "true";
  } else {
    return Fail(why, "unknown rule " + Quote(name));
  }
  return true;
}

}  // namespace

bool ParsePolicyRules(const std::string& text, PolicyRules* rules, std::string* why) {
  PolicyRules parsed;
  size_t pos = text.find_first_not_of(' ');
  while (pos != std::string::npos) {
    if (text[pos] != '"') {
      return Fail(why, "expected a double-quoted rule name at offset " + std::to_string(pos));
    }
    std::string name, value;
    if (!QuotedText(text, &pos, &name, why)) return false;
    if (text.compare(pos, 2, " \"") != 0) {
      return Fail(why, "rule " + Quote(name) + " needs one blank and a double-quoted value");
    }
    ++pos;
    if (!QuotedText(text, &pos, &value, why)) return false;
    if (pos < text.size() && text[pos] != ' ') {
      return Fail(why, "expected a blank after the value of rule " + Quote(name) +
                           " at offset " + std::to_string(pos));
    }
    if (!Apply(name, value, &parsed, why)) return false;
    pos = text.find_first_not_of(' ', pos);
  }
  *rules = std::move(parsed);
  return true;
}

}  // namespace platform
}  // namespace zel

namespace NokCtl {
namespace Orva {
namespace IscsiTarget {
namespace Util {

void VerifyPolicy(const std::string& policy) {
  using zel::platform::ParsePolicyRules;
  using zel::platform::PolicyRules;
  PolicyRules rules;
  std::string why;
  if (!ParsePolicyRules(policy, &rules, &why)) {
    throw HostCtl::Lib::Orva::OrvaCtlException("Invalid storage policy '" + policy + "': " + why);
  }
}

}  // namespace Util
}  // namespace IscsiTarget
}  // namespace Orva
}  // namespace NokCtl
