// The checks on names, credentials and listen addresses from outside: their
// limits (strict and inclusive ones), the order in which they report, and
// their messages word for word.
#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <string>
#include <tuple>
#include <vector>

#include "edit/NetworkValidation.h"
#include "edit/Validation.h"
#include "platform/Host.h"
#include "support/FakeNetworkInterfaces.h"
#include "support/Messages.h"
#include "support/TestHost.h"

namespace zel {
namespace test {
namespace {

using HostCtl::Orva::IscsiTarget::DefaultInfo;
using HostCtl::Orva::IscsiTarget::TargetCreateParam;
namespace Util = NokCtl::Orva::IscsiTarget::Util;

const std::string kUserRule =
    "Username should meet all these requirements: 1) must contain at least one character; "
    "2) special characters allowed are ( _, ., -, @, :); 3) cannot start with special "
    "characters.";
const std::string kSecretRule =
    "User secret should meet all these requirements: 1) 12 to 16 characters in length, "
    "2) minimum 1 uppercase character, 3) minimum 1 lowercase character, 4) minimum 1 "
    "numeric digit, 5) minimum 1 special character( !, @, #, $, %, &, ^ and *), 6) only "
    "visible ASCII characters including space (excluding non-printing control characters "
    "such as BEL, Nul,...), 7) cannot start or end with spaces.";
const std::string kIqnFormat =
    "'. Permitted characters A-Z, a-z, 0-9, '.', ':', '-' Expected format : "
    "iqn.YYYY-MM.domain:TargetName.";
const std::string kGroupName = "Invalid initiator group name '";
const std::string kGroupCharacters =
    "'. Allowed characters are A-Z, a-z, 0-9, '.', ':', '-', '_', and cannot be all digits";
const std::string kGroupTooLong = "'. Maximum permitted length is 223 bytes.";
const std::string kInitiatorFormat =
    "'. Expected format for initiator IQN is 'iqn.YYYY-MM.domain:initiatorName' or "
    "'eui.YYYY-MM.domain:initiatorName'";

// "iqn.2024-01.org.example:" padded with 'a' to `length` bytes.
std::string IqnOfLength(size_t length, const std::string& prefix = "iqn.2024-01.org.example:") {
  return prefix + std::string(length - prefix.size(), 'a');
}

DefaultInfo Defaults(const std::string& type, const std::string& user, const std::string& secret,
                     const std::string& mutualUser, const std::string& mutualSecret) {
  DefaultInfo info;
  info.authType = type;
  info.userid = user;
  info.secret = secret;
  info.mutualUserid = mutualUser;
  info.mutualSecret = mutualSecret;
  return info;
}

// What the core said, with the defaults wrapper's context removed.
std::string CoreRefusal(const std::string& type, const std::string& user, const std::string& secret,
                        const std::string& mutualUser = "", const std::string& mutualSecret = "") {
  const std::string message = MessageOf([&] {
    Util::VerifyDefaultAuthParams(Defaults(type, user, secret, mutualUser, mutualSecret));
  });
  const std::string prefix =
      "Failed to verify default authentication type " + type + " with error: ";
  if (message.empty()) return message;
  EXPECT_EQ(message.compare(0, prefix.size(), prefix), 0) << message;
  return message.substr(prefix.size());
}

// ---- target identity -------------------------------------------------------------

TEST(TargetParamsTest, AliasIqnAndQuotesAreCheckedInOrderWithTheirLimits) {
  using Edit = std::function<void(TargetCreateParam&)>;
  const std::string a127(127, 'a'), a128(128, 'a');
  const std::string i223 = IqnOfLength(223), i224 = IqnOfLength(224);
  // Too long and malformed at once: the pattern speaks first.
  const std::string badLong = IqnOfLength(300, "iqn.2024-01.org.example:bad name ");
  const std::vector<std::pair<Edit, std::string>> cases = {
      {[&](TargetCreateParam& p) { p.alias = a127; }, ""},
      {[](TargetCreateParam& p) { p.alias = "x"; }, ""},
      {[&](TargetCreateParam& p) { p.alias = a128; },
       "Invalid alias '" + a128 + "'. Permitted length should be less than 128 bytes."},
      {[](TargetCreateParam& p) { p.alias = ""; },
       "Invalid alias ''. Permitted length should be larger than 1 bytes."},
      {[&](TargetCreateParam& p) { p.iqn = i223; }, ""},
      {[&](TargetCreateParam& p) { p.iqn = i224; },
       "Invalid IQN '" + i224 + "'. Permitted length should be less than 224 bytes."},
      {[&](TargetCreateParam& p) { p.iqn = badLong; }, "Invalid IQN '" + badLong + kIqnFormat},
      // A whitespace-only alias is refused after the quote checks.
      {[](TargetCreateParam& p) { p.alias = " \t "; },
       "Invalid alias ' \t '. The alias should not contain only whitespaces."},
      {[](TargetCreateParam& p) { p.alias = " \t ", p.secret = "\""; },
       "'\"' not permitted in secret"},
      {[](TargetCreateParam& p) { p.alias = " finance "; }, ""},
  };
  for (size_t i = 0; i < cases.size(); ++i) {
    TargetCreateParam param;
    param.alias = "finance";
    param.iqn = "iqn.2024-01.org.example:finance";
    cases[i].first(param);
    EXPECT_EQ(MessageOf([&] { Util::VerifyTargetParams(param); }), cases[i].second) << i;
  }
  // Double quotes are reported field by field in order.
  TargetCreateParam param;
  param.alias = "finance";
  param.iqn = "iqn.2024-01.org.example:finance";
  const std::vector<std::pair<std::string*, std::string>> fields = {
      {&param.alias, "alias"},
      {&param.userid, "userid"},
      {&param.secret, "secret"},
      {&param.mutualUserid, "mutual userid"},
      {&param.mutualSecret, "mutual secret"}};
  for (const auto& field : fields) *field.first += "x\"";
  for (const auto& field : fields) {
    EXPECT_EQ(MessageOf([&] { Util::VerifyTargetParams(param); }),
              "'\"' not permitted in " + field.second);
    field.first->pop_back();
  }
  EXPECT_EQ(MessageOf([&] { Util::VerifyTargetParams(param); }), "");
  // The IQN pattern wants a lower-case prefix and a real month.
  const std::vector<std::string> good = {"iqn.2024-01.org.example:t", "iqn.2024-12.org.example:t",
                                         "iqn.2024-09.org.example",
                                         "iqn.2024-09.org.example:a:b.c-d"};
  const std::vector<std::string> bad = {
      "iqn.2024-00.org.example:t", "iqn.2024-13.org.example:t", "IQN.2024-01.org.example:t",
      "Iqn.2024-01.org.example:t", "iqn.24-01.org.example:t",   "iqn.2024-01.:t",
      "iqn.2024-01.org.example:bad name", "iqn.2024-01.org_example:t", ""};
  for (const std::vector<std::string>* list : {&good, &bad}) {
    for (const std::string& iqn : *list) {
      TargetCreateParam named;
      named.alias = "finance";
      named.iqn = iqn;
      EXPECT_EQ(MessageOf([&] { Util::VerifyTargetParams(named); }),
                list == &good ? "" : "Invalid IQN '" + iqn + kIqnFormat)
          << iqn;
    }
  }
}

// ---- authentication consistency --------------------------------------------------

TEST(AuthParamsTest, CredentialsAreCheckedPresenceFirstThenUsersThenSecrets) {
  const std::string ok = "Abcdefgh#123", ok2 = "Abcdefgh#124";
  const std::vector<std::tuple<std::string, std::string, std::string, std::string, std::string,
                               std::string>>
      cases = {
          {"No-Authentication", "u", "s", "m", "t", "User id should not be provided."},
          {"No-Authentication", "", "s", "m", "t", "Secret should not be provided."},
          {"No-Authentication", "", "", "m", "t", "Mutual user id should not be provided."},
          {"No-Authentication", "", "", "", "t", "Mutual secret should not be provided."},
          {"No-Authentication", "", "", "", "", ""},
          {"", "u", "s", "m", "t", "User id should not be provided."},
          {"", "", "", "", "t", "Mutual secret should not be provided."},
          {"", "", "", "", "", ""},
          {"CHAP", "", "", "m", "t", "User id should not be empty."},
          {"CHAP", "u", "", "m", "t", "Secret should not be empty."},
          {"CHAP", "u", "weak", "m", "t", "Mutual user id should not be provided."},
          {"CHAP", "u", "weak", "", "t", "Mutual secret should not be provided."},
          {"CHAP", "_u", "weak", "", "", kUserRule},
          {"CHAP", "u", "weak", "", "", kSecretRule},
          {"CHAP", "u", ok, "", "", ""},
          {"CHAP-Mutual", "", "", "", "", "User id should not be empty."},
          {"CHAP-Mutual", "u", "", "", "", "Secret should not be empty."},
          {"CHAP-Mutual", "u", "s", "", "", "Mutual user id should not be empty."},
          {"CHAP-Mutual", "u", "s", "m", "", "Mutual secret should not be empty."},
          {"CHAP-Mutual", "u", ok, "m", ok2, ""},
          // Equal secrets fail before the secret rule.
          {"CHAP-Mutual", "_u", "weak", "_m", "weak",
           "Outgoing and incoming CHAP secret could not be the same."},
          // A bad mutual user is reported although the secret is bad too.
          {"CHAP-Mutual", "u", "weak", "-m", ok2, kUserRule},
          {"CHAP-Mutual", "u", ok, "m", "weak", kSecretRule},
          // Type names are exact, letter case included.
          {"chap", "u", ok, "", "", "Found invalid auth type chap"},
          {"Chap-Mutual", "", "", "", "", "Found invalid auth type Chap-Mutual"},
          {"None", "", "", "", "", "Found invalid auth type None"},
      };
  for (const auto& [type, user, secret, mutualUser, mutualSecret, expected] : cases) {
    EXPECT_EQ(CoreRefusal(type, user, secret, mutualUser, mutualSecret), expected)
        << type << "/" << user << "/" << secret << "/" << mutualUser << "/" << mutualSecret;
  }
}

TEST(AuthParamsTest, UserAndSecretRules) {
  // A user starts with a letter or digit, then allows five specials.
  for (const std::string user : {"u", "7", "a_b-c.d@e:f", "Admin01"})
    EXPECT_EQ(CoreRefusal("CHAP", user, "Abcdefgh#123"), "") << user;
  for (const std::string user : {"_u", ".u", "@u", "user name", "user!", "us\"er", "u\n"})
    EXPECT_EQ(CoreRefusal("CHAP", user, "Abcdefgh#123"), kUserRule) << user;
  // The secret rule enforces its pattern and outer spaces only: a control
  // character is not refused although the message says so.
  for (const std::string secret : {"Abcdefgh#123", "Abcdefgh#1234567", "Abcd efgh#123",
                                   "Abcdefgh!123", "Abcdefgh@123", "Abcdefgh$123", "Abcdefgh%123",
                                   "Abcdefgh^123", "Abcdefgh&123", "Abcdefgh*123", "Abcdefgh#12\a"})
    EXPECT_EQ(CoreRefusal("CHAP", "u", secret), "") << secret;
  for (const std::string secret : {
           "Abcdefg#123",        // 11
           "Abcdefgh#12345678",  // 17
           "abcdefgh#123",       // no upper case
           "ABCDEFGH#123",       // no lower case
           "Abcdefgh#abc",       // no digit
           "Abcdefgh+123",       // no listed special
           "Abcdefgh#123 ",      // 13 and fits the pattern, but ends with a blank
           " Abcdefgh#123",      // starts with a blank
       })
    EXPECT_EQ(CoreRefusal("CHAP", "u", secret), kSecretRule) << "'" << secret << "'";
}

TEST(AuthParamsTest, WrappersNameTheirContext) {
  EXPECT_EQ(MessageOf([] { Util::VerifyDefaultAuthParams(Defaults("chap", "", "", "", "")); }),
            "Failed to verify default authentication type chap with error: Found invalid auth "
            "type chap");
  TargetCreateParam param;
  param.alias = "finance";
  param.authType = "CHAP";
  param.userid = "u";
  EXPECT_EQ(MessageOf([&] { Util::VerifyTargetAuthParams(param); }),
            "Failed to verify authentication type CHAP for target finance with error: Secret "
            "should not be empty.");
  param.secret = "Abcdefgh#123";
  EXPECT_EQ(MessageOf([&] { Util::VerifyTargetAuthParams(param); }), "");
}

// ---- initiator and group names ---------------------------------------------------

TEST(InitiatorNameTest, HoldsAtMost223BytesCheckedBeforeTheFormAndIsIqnOrEui) {
  const std::string tooLong = IqnOfLength(224, "not an initiator ");
  const std::vector<std::pair<std::string, std::string>> cases = {
      {IqnOfLength(223), ""},
      {tooLong, "Invalid initiator IQN '" + tooLong + "'. Maximum permitted length is 223 bytes."},
      {"iqn.2024-01.org.example:host1", ""},
      {"eui.2024-01.org.example:host1", ""},
      {"iqn.1998-12.com.x", ""}};
  for (const auto& [name, expected] : cases)
    EXPECT_EQ(MessageOf([&] { Util::ValidateInitiatorIQN(name); }), expected) << name;
  for (const std::string name : {"IQN.2024-01.org.example:host1", "eui.2024-13.org.example",
                                 "iqn.2024-01.org.example:host 1", "host1", ""}) {
    EXPECT_EQ(MessageOf([&] { Util::ValidateInitiatorIQN(name); }),
              "Invalid initiator IQN: '" + name + kInitiatorFormat)
        << name;
  }
}

TEST(InitiatorGroupNameTest, CharactersThenLengthThenPrefix) {
  const std::string longest(223, 'g'), tooLong(224, 'g'), digits(224, '7');
  const std::string prefixedTooLong = "iqn." + std::string(220, 'g');
  const std::vector<std::pair<std::string, std::string>> cases = {
      {"finance-hosts", ""}, {"a.b:c_d-e", ""}, {"0a", ""}, {"iqn-hosts", ""}, {"iqn", ""},
      {longest, ""},
      {"finance hosts", kGroupName + "finance hosts" + kGroupCharacters},
      {"hosts!", kGroupName + "hosts!" + kGroupCharacters},
      {"12345", kGroupName + "12345" + kGroupCharacters},
      {"", kGroupName + kGroupCharacters},
      {"h\"q", kGroupName + "h\"q" + kGroupCharacters},
      {tooLong, kGroupName + tooLong + kGroupTooLong},
      // Characters first: 224 digits break the character rule.
      {digits, kGroupName + digits + kGroupCharacters},
      // Length speaks before the prefix.
      {prefixedTooLong, kGroupName + prefixedTooLong + kGroupTooLong}};
  for (const auto& [name, expected] : cases)
    EXPECT_EQ(MessageOf([&] { Util::ValidateInitiatorGroupName(name); }), expected) << name;
  for (const std::string name : {"iqn.hosts", "IqN.hosts", "EUI.hosts", "eui.2024-01.x"}) {
    EXPECT_EQ(MessageOf([&] { Util::ValidateInitiatorGroupName(name); }),
              kGroupName + name + "'. Initiator group name cannot start with 'iqn.' or 'eui.'")
        << name;
  }
}

// ---- listen interface and port ---------------------------------------------------

// The interface must be one of this host's (whatever its state), the port
// 3260 or, with an interface, 1024 < port <= 65535; without an interface
// only 3260, and the host's interfaces are not asked.
TEST(NetworkValidationTest, InterfaceMustBeThisHostsAndThePortInRange) {
  ScopedTestHost host;
  auto nics = std::make_unique<FakeNetworkInterfaces>();
  FakeNetworkInterfaces* fake = nics.get();
  nics->Set("nok0", platform::NOKNIC_UP);
  nics->Set("nok1", platform::NOKNIC_DOWN);
  platform::CurrentHost().SetNics(std::move(nics));
  const std::string range =
      " provided for interface nok0, valid port range is 1024 < port <= 65535";
  const std::string absent = " is not available on this host";
  const std::vector<std::tuple<std::string, int32_t, std::string>> cases = {
      {"nok1", 3260, ""},
      {"nok9", 3260, "Network interface nok9" + absent},
      {"nok9", 5000, "Network interface nok9" + absent},
      {"NOK0", 3260, "Network interface NOK0" + absent},  // names compare exactly
      {"nok", 3260, "Network interface nok" + absent},
      {"nok0", 1024, "Invalid port 1024" + range},
      {"nok0", 1025, ""},
      {"nok0", 3260, ""},
      {"nok0", 65535, ""},
      {"nok0", 65536, "Invalid port 65536" + range},
      {"nok0", 0, "Invalid port 0" + range},
      {"nok0", -3260, "Invalid port -3260" + range},
      {"", 3260, ""},
      {"", 3261, "Network interface is not provided for port 3261"},
      {"", 1025, "Network interface is not provided for port 1025"}};
  for (const auto& [nic, port, expected] : cases) {
    EXPECT_EQ(MessageOf([&, n = nic, p = port] { Util::VerifyNetworkConfig(n, p); }), expected)
        << nic << ":" << port;
  }
  // Only the missing interface is logged, as an error.
  int errors = 0;
  for (const LogLine& line : host.Log().Lines()) {
    EXPECT_NE(line.text, "Util: Invalid port 1024" + range);
    if (line.text == "Util: Network interface is not provided for port 3261") {
      EXPECT_EQ(platform::LogLevel::Error, line.level);
      ++errors;
    }
  }
  EXPECT_EQ(1, errors);
  fake->FailListing("Failed to list the network interfaces of this host: Out of memory");
  EXPECT_EQ(MessageOf([] { Util::VerifyNetworkConfig("", 3260); }), "");
  EXPECT_EQ(MessageOf([] { Util::VerifyNetworkConfig("nok0", 3260); }),
            "Failed to list the network interfaces of this host: Out of memory");
}

}  // namespace
}  // namespace test
}  // namespace zel
