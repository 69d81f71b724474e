// The checks on names and credentials from outside: their limits (strict
// and inclusive ones), the order in which they report, and their messages
// word for word.
#include <gtest/gtest.h>

#include <string>

#include "edit/Validation.h"
#include "support/Messages.h"

namespace {

using zel::test::MessageOf;
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
const std::string kGroupCharacters =
    "'. Allowed characters are A-Z, a-z, 0-9, '.', ':', '-', '_', and cannot be all digits";
const std::string kInitiatorFormat =
    "'. Expected format for initiator IQN is 'iqn.YYYY-MM.domain:initiatorName' or "
    "'eui.YYYY-MM.domain:initiatorName'";

// "iqn.2024-01.org.example:" padded with 'a' to `length` bytes.
std::string IqnOfLength(size_t length, const std::string& prefix = "iqn.2024-01.org.example:") {
  return prefix + std::string(length - prefix.size(), 'a');
}

TargetCreateParam ValidTarget() {
  TargetCreateParam param;
  param.alias = "finance";
  param.iqn = "iqn.2024-01.org.example:finance";
  return param;
}

std::string TargetRefusal(const TargetCreateParam& param) {
  return MessageOf([&] { Util::VerifyTargetParams(param); });
}

std::string DefaultAuthRefusal(const std::string& type, const std::string& user,
                               const std::string& secret, const std::string& mutualUser,
                               const std::string& mutualSecret) {
  DefaultInfo info;
  info.authType = type;
  info.userid = user;
  info.secret = secret;
  info.mutualUserid = mutualUser;
  info.mutualSecret = mutualSecret;
  return MessageOf([&] { Util::VerifyDefaultAuthParams(info); });
}

// What the core said, with the defaults wrapper's context removed.
std::string CoreRefusal(const std::string& type, const std::string& user, const std::string& secret,
                        const std::string& mutualUser = "", const std::string& mutualSecret = "") {
  const std::string message = DefaultAuthRefusal(type, user, secret, mutualUser, mutualSecret);
  if (message.empty()) return message;
  const std::string prefix =
      "Failed to verify default authentication type " + type + " with error: ";
  EXPECT_EQ(message.compare(0, prefix.size(), prefix), 0) << message;
  return message.substr(prefix.size());
}

std::string SecretRefusal(const std::string& secret) { return CoreRefusal("CHAP", "u", secret); }

// ---- Target identity --------------------------------------------------------

TEST(TargetParamsTest, AliasHoldsOneTo127Bytes) {
  TargetCreateParam param = ValidTarget();
  param.alias = std::string(127, 'a');
  EXPECT_EQ(TargetRefusal(param), "");

  param.alias = std::string(128, 'a');
  EXPECT_EQ(TargetRefusal(param),
            "Invalid alias '" + param.alias + "'. Permitted length should be less than 128 bytes.");

  param.alias = "";
  EXPECT_EQ(TargetRefusal(param),
            "Invalid alias ''. Permitted length should be larger than 1 bytes.");
}

TEST(TargetParamsTest, IqnHoldsAtMost223BytesCheckedAfterThePattern) {
  TargetCreateParam param = ValidTarget();
  param.iqn = IqnOfLength(223);
  EXPECT_EQ(TargetRefusal(param), "");

  param.iqn = IqnOfLength(224);
  EXPECT_EQ(TargetRefusal(param),
            "Invalid IQN '" + param.iqn + "'. Permitted length should be less than 224 bytes.");

  // Too long and malformed at once: the pattern speaks first.
  param.iqn = IqnOfLength(300, "iqn.2024-01.org.example:bad name ");
  EXPECT_EQ(TargetRefusal(param), "Invalid IQN '" + param.iqn + kIqnFormat);
}

TEST(TargetParamsTest, IqnPatternWantsALowerCasePrefixAndARealMonth) {
  TargetCreateParam param = ValidTarget();
  for (const std::string iqn : {"iqn.2024-01.org.example:t", "iqn.2024-12.org.example:t",
                                "iqn.2024-09.org.example", "iqn.2024-09.org.example:a:b.c-d"}) {
    param.iqn = iqn;
    EXPECT_EQ(TargetRefusal(param), "") << iqn;
  }
  for (const std::string iqn :
       {"iqn.2024-00.org.example:t", "iqn.2024-13.org.example:t", "IQN.2024-01.org.example:t",
        "Iqn.2024-01.org.example:t", "iqn.24-01.org.example:t", "iqn.2024-01.:t",
        "iqn.2024-01.org.example:bad name", "iqn.2024-01.org_example:t", ""}) {
    param.iqn = iqn;
    EXPECT_EQ(TargetRefusal(param), "Invalid IQN '" + iqn + kIqnFormat) << iqn;
  }
}

TEST(TargetParamsTest, DoubleQuotesAreReportedFieldByFieldInOrder) {
  TargetCreateParam param = ValidTarget();
  param.alias = "fin\"ance";
  param.userid = "u\"";
  param.secret = "s\"";
  param.mutualUserid = "m\"";
  param.mutualSecret = "\"";
  EXPECT_EQ(TargetRefusal(param), "'\"' not permitted in alias");
  param.alias = "finance";
  EXPECT_EQ(TargetRefusal(param), "'\"' not permitted in userid");
  param.userid = "u";
  EXPECT_EQ(TargetRefusal(param), "'\"' not permitted in secret");
  param.secret = "s";
  EXPECT_EQ(TargetRefusal(param), "'\"' not permitted in mutual userid");
  param.mutualUserid = "m";
  EXPECT_EQ(TargetRefusal(param), "'\"' not permitted in mutual secret");
  param.mutualSecret = "x";
  EXPECT_EQ(TargetRefusal(param), "");
}

TEST(TargetParamsTest, WhitespaceOnlyAliasIsRefusedAfterTheQuoteChecks) {
  TargetCreateParam param = ValidTarget();
  param.alias = " \t ";
  EXPECT_EQ(TargetRefusal(param),
            "Invalid alias ' \t '. The alias should not contain only whitespaces.");
  param.secret = "\"";
  EXPECT_EQ(TargetRefusal(param), "'\"' not permitted in secret");

  param = ValidTarget();
  param.alias = " finance ";
  EXPECT_EQ(TargetRefusal(param), "");
}

TEST(GenericChecksTest, LengthBoundIsStrictAboveAndInclusiveBelow) {
  EXPECT_EQ(MessageOf([] { Util::VerifyLength("abc", 3, 4, "name"); }), "");
  EXPECT_EQ(MessageOf([] { Util::VerifyLength("abcd", 3, 4, "name"); }),
            "Invalid name 'abcd'. Permitted length should be less than 4 bytes.");
  EXPECT_EQ(MessageOf([] { Util::VerifyLength("ab", 3, 4, "name"); }),
            "Invalid name 'ab'. Permitted length should be larger than 3 bytes.");
  EXPECT_EQ(MessageOf([] { Util::VerifyNoQuote("lun \"0\"", "alias"); }),
            "'\"' not permitted in alias");
}

// ---- Authentication consistency -----------------------------------------------

TEST(AuthParamsTest, NoAuthenticationRefusesEachCredentialInOrder) {
  for (const std::string type : {"No-Authentication", ""}) {
    EXPECT_EQ(CoreRefusal(type, "u", "s", "m", "t"), "User id should not be provided.");
    EXPECT_EQ(CoreRefusal(type, "", "s", "m", "t"), "Secret should not be provided.");
    EXPECT_EQ(CoreRefusal(type, "", "", "m", "t"), "Mutual user id should not be provided.");
    EXPECT_EQ(CoreRefusal(type, "", "", "", "t"), "Mutual secret should not be provided.");
    EXPECT_EQ(CoreRefusal(type, "", "", "", ""), "");
  }
}

TEST(AuthParamsTest, ChapWantsUserAndSecretAndNoMutualCredentials) {
  EXPECT_EQ(CoreRefusal("CHAP", "", "", "m", "t"), "User id should not be empty.");
  EXPECT_EQ(CoreRefusal("CHAP", "u", "", "m", "t"), "Secret should not be empty.");
  EXPECT_EQ(CoreRefusal("CHAP", "u", "weak", "m", "t"), "Mutual user id should not be provided.");
  EXPECT_EQ(CoreRefusal("CHAP", "u", "weak", "", "t"), "Mutual secret should not be provided.");
  // Presence first, rules after.
  EXPECT_EQ(CoreRefusal("CHAP", "_u", "weak"), kUserRule);
  EXPECT_EQ(CoreRefusal("CHAP", "u", "weak"), kSecretRule);
  EXPECT_EQ(CoreRefusal("CHAP", "u", "Abcdefgh#123"), "");
}

TEST(AuthParamsTest, ChapMutualWantsAllFourCredentialsInOrder) {
  EXPECT_EQ(CoreRefusal("CHAP-Mutual", "", "", "", ""), "User id should not be empty.");
  EXPECT_EQ(CoreRefusal("CHAP-Mutual", "u", "", "", ""), "Secret should not be empty.");
  EXPECT_EQ(CoreRefusal("CHAP-Mutual", "u", "s", "", ""), "Mutual user id should not be empty.");
  EXPECT_EQ(CoreRefusal("CHAP-Mutual", "u", "s", "m", ""), "Mutual secret should not be empty.");
  EXPECT_EQ(CoreRefusal("CHAP-Mutual", "u", "Abcdefgh#123", "m", "Abcdefgh#124"), "");
}

TEST(AuthParamsTest, EqualChapMutualSecretsFailBeforeTheSecretRule) {
  EXPECT_EQ(CoreRefusal("CHAP-Mutual", "_u", "weak", "_m", "weak"),
            "Outgoing and incoming CHAP secret could not be the same.");
}

TEST(AuthParamsTest, ChapMutualAppliesUserRulesBeforeSecretRules) {
  // A bad mutual user is reported although the secret is bad too.
  EXPECT_EQ(CoreRefusal("CHAP-Mutual", "u", "weak", "-m", "Abcdefgh#124"), kUserRule);
  EXPECT_EQ(CoreRefusal("CHAP-Mutual", "u", "Abcdefgh#123", "m", "weak"), kSecretRule);
}

TEST(AuthParamsTest, TypeNamesAreExactIncludingLetterCase) {
  EXPECT_EQ(CoreRefusal("chap", "u", "Abcdefgh#123"), "Found invalid auth type chap");
  EXPECT_EQ(CoreRefusal("Chap-Mutual", "", ""), "Found invalid auth type Chap-Mutual");
  EXPECT_EQ(CoreRefusal("None", "", ""), "Found invalid auth type None");
}

TEST(AuthParamsTest, UserStartsWithALetterOrDigitThenAllowsFiveSpecials) {
  for (const std::string user : {"u", "7", "a_b-c.d@e:f", "Admin01"}) {
    EXPECT_EQ(CoreRefusal("CHAP", user, "Abcdefgh#123"), "") << user;
  }
  for (const std::string user : {"_u", ".u", "@u", "user name", "user!", "us\"er", "u\n"}) {
    EXPECT_EQ(CoreRefusal("CHAP", user, "Abcdefgh#123"), kUserRule) << user;
  }
}

TEST(AuthParamsTest, SecretRuleEnforcesPatternAndOuterSpacesOnly) {
  EXPECT_EQ(SecretRefusal("Abcdefgh#123"), "");      // 12
  EXPECT_EQ(SecretRefusal("Abcdefgh#1234567"), "");  // 16
  EXPECT_EQ(SecretRefusal("Abcd efgh#123"), "");     // inner space
  for (const std::string special : {"!", "@", "#", "$", "%", "^", "&", "*"}) {
    EXPECT_EQ(SecretRefusal("Abcdefgh" + special + "123"), "") << special;
  }
  // A control character is not refused although the message says so.
  EXPECT_EQ(SecretRefusal("Abcdefgh#12\a"), "");

  for (const std::string secret : {
           "Abcdefg#123",        // 11
           "Abcdefgh#12345678",  // 17
           "abcdefgh#123",       // no upper case
           "ABCDEFGH#123",       // no lower case
           "Abcdefgh#abc",       // no digit
           "Abcdefgh+123",       // no listed special
           "Abcdefgh#123 ",      // 13 and fits the pattern, but ends with a blank
           " Abcdefgh#123",      // starts with a blank
       }) {
    EXPECT_EQ(SecretRefusal(secret), kSecretRule) << "'" << secret << "'";
  }
}

TEST(AuthParamsTest, WrappersNameTheirContext) {
  EXPECT_EQ(DefaultAuthRefusal("chap", "", "", "", ""),
            "Failed to verify default authentication type chap with error: Found invalid auth "
            "type chap");

  TargetCreateParam param = ValidTarget();
  param.authType = "CHAP";
  param.userid = "u";
  EXPECT_EQ(MessageOf([&] { Util::VerifyTargetAuthParams(param); }),
            "Failed to verify authentication type CHAP for target finance with error: Secret "
            "should not be empty.");
  param.secret = "Abcdefgh#123";
  EXPECT_EQ(MessageOf([&] { Util::VerifyTargetAuthParams(param); }), "");
}

// ---- Initiator and group names ---------------------------------------------------

TEST(InitiatorNameTest, HoldsAtMost223BytesCheckedBeforeTheForm) {
  EXPECT_EQ(MessageOf([] { Util::ValidateInitiatorIQN(IqnOfLength(223)); }), "");
  const std::string tooLong = IqnOfLength(224, "not an initiator ");
  EXPECT_EQ(MessageOf([&] { Util::ValidateInitiatorIQN(tooLong); }),
            "Invalid initiator IQN '" + tooLong + "'. Maximum permitted length is 223 bytes.");
}

TEST(InitiatorNameTest, AcceptsTheIqnAndEuiFormsOnly) {
  for (const std::string name :
       {"iqn.2024-01.org.example:host1", "eui.2024-01.org.example:host1", "iqn.1998-12.com.x"}) {
    EXPECT_EQ(MessageOf([&] { Util::ValidateInitiatorIQN(name); }), "") << name;
  }
  for (const std::string name : {"IQN.2024-01.org.example:host1", "eui.2024-13.org.example",
                                 "iqn.2024-01.org.example:host 1", "host1", ""}) {
    EXPECT_EQ(MessageOf([&] { Util::ValidateInitiatorIQN(name); }),
              "Invalid initiator IQN: '" + name + kInitiatorFormat)
        << name;
  }
}

TEST(InitiatorGroupNameTest, AllowsLettersDigitsAndFourSpecialsButNotOnlyDigits) {
  for (const std::string name : {"finance-hosts", "a.b:c_d-e", "0a", "iqn-hosts", "iqn"}) {
    EXPECT_EQ(MessageOf([&] { Util::ValidateInitiatorGroupName(name); }), "") << name;
  }
  for (const std::string name : {"finance hosts", "hosts!", "12345", "", "h\"q"}) {
    EXPECT_EQ(MessageOf([&] { Util::ValidateInitiatorGroupName(name); }),
              "Invalid initiator group name '" + name + kGroupCharacters)
        << name;
  }
}

TEST(InitiatorGroupNameTest, HoldsAtMost223Bytes) {
  const std::string longest(223, 'g');
  EXPECT_EQ(MessageOf([&] { Util::ValidateInitiatorGroupName(longest); }), "");
  const std::string tooLong(224, 'g');
  EXPECT_EQ(
      MessageOf([&] { Util::ValidateInitiatorGroupName(tooLong); }),
      "Invalid initiator group name '" + tooLong + "'. Maximum permitted length is 223 bytes.");
  // Characters first: 224 digits break the character rule.
  const std::string digits(224, '7');
  EXPECT_EQ(MessageOf([&] { Util::ValidateInitiatorGroupName(digits); }),
            "Invalid initiator group name '" + digits + kGroupCharacters);
}

TEST(InitiatorGroupNameTest, MayNotStartLikeAnInitiatorNameInAnyCase) {
  for (const std::string name : {"iqn.hosts", "IqN.hosts", "EUI.hosts", "eui.2024-01.x"}) {
    EXPECT_EQ(MessageOf([&] { Util::ValidateInitiatorGroupName(name); }),
              "Invalid initiator group name '" + name +
                  "'. Initiator group name cannot start with 'iqn.' or 'eui.'")
        << name;
  }
  // Length speaks before the prefix.
  const std::string tooLong = "iqn." + std::string(220, 'g');
  EXPECT_EQ(
      MessageOf([&] { Util::ValidateInitiatorGroupName(tooLong); }),
      "Invalid initiator group name '" + tooLong + "'. Maximum permitted length is 223 bytes.");
}

}  // namespace
