// Setting the cluster-wide defaults in zel.conf: what the file holds
// afterwards (and what a reader gets back), the generation it carries and
// publishes, and that a failed save leaves file, generation and directory as
// they were.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <unistd.h>

#include <cstdint>
#include <filesystem>
#include <string>

#include "cache/ConfigCache.h"
#include "conf/ConfHandle.h"
#include "directory/DirectoryEntries.h"
#include "edit/DefaultsEditor.h"
#include "edit/ParserQueries.h"
#include "storage/DatastoreLayout.h"
#include "support/Messages.h"
#include "support/Process.h"
#include "support/ServiceHome.h"

namespace zel {
namespace test {
namespace {

using HostCtl::Orva::IscsiTarget::DefaultInfo;
using NokCtl::Orva::IscsiTarget::ConfHandle;
using NokCtl::Orva::IscsiTarget::ConfigCache;
namespace Parser = NokCtl::Orva::IscsiTarget::Parser;

constexpr uint64_t kNoGeneration = ~uint64_t{0};

const char kStandardDefaultAuth[] =
    "\t chap-mutual \"defuser\" \"RGVmYXVsdCNTZWNyZXQx\" \"defmutual\" \"TXV0dWFsI1NlY3JldDIy\"\n";
const char kStandardListen[] = "\t listen nok0:3260\n";

DefaultInfo Defaults(const std::string& type, const std::string& user = "",
                     const std::string& secret = "", const std::string& mutualUser = "",
                     const std::string& mutualSecret = "") {
  DefaultInfo info;
  info.authType = type;
  info.userid = user;
  info.secret = secret;
  info.mutualUserid = mutualUser;
  info.mutualSecret = mutualSecret;
  return info;
}

// kStandardConf with one piece of text replaced.
std::string StandardWith(const std::string& from, const std::string& to,
                         const std::string& text = kStandardConf) {
  std::string result = text;
  const size_t at = result.find(from);
  EXPECT_NE(at, std::string::npos) << from;
  if (at != std::string::npos) result.replace(at, from.size(), to);
  return result;
}

class DefaultsEditorTest : public ::testing::Test {
 protected:
  DefaultsEditorTest() : services_(home_.InstallTestHost()) {}

  std::string Conf() const { return ReadFile(home_.ConfPath()); }

  uint64_t PublishedGeneration() const {
    uint64_t generation = kNoGeneration;
    if (ZeldGetConfigGenNumInBrix(&generation) != NOK_OK) return kNoGeneration;
    return generation;
  }

  ServiceHome home_;
  TestServices services_;
};

TEST_F(DefaultsEditorTest, ChapDefaultsReplaceOnlyTheirLinesAndRaiseTheGeneration) {
  DefaultInfo info = Defaults("CHAP", "newuser", "Abcdefgh#123");
  info.networkInterface = "nok1";
  info.port = 3261;
  Parser::UpdateDefaultConfig(info);

  std::string expected = StandardWith("generation 7\n", "generation 8\n");
  // The writer stores the secret Base64-encoded, never in the clear.
  expected =
      StandardWith(kStandardDefaultAuth, "\t chap \"newuser\" \"QWJjZGVmZ2gjMTIz\" \n", expected);
  expected = StandardWith(kStandardListen, "\t listen nok1:3261\n", expected);
  EXPECT_EQ(Conf(), expected);
}

TEST_F(DefaultsEditorTest, ChapMutualDefaultsReadBackThroughTheReader) {
  DefaultInfo info =
      Defaults("CHAP-Mutual", "initiator-side", "Outgoing#Sec1", "target-side", "Incoming#Sec2");
  info.networkInterface = "nok2";
  info.port = 65535;
  Parser::UpdateDefaultConfig(info);

  const DefaultInfo back = Parser::GetDefaultInfo(true);
  EXPECT_EQ(back.authType, "CHAP-Mutual");
  EXPECT_EQ(back.userid, "initiator-side");
  EXPECT_EQ(back.secret, "Outgoing#Sec1");
  EXPECT_EQ(back.mutualUserid, "target-side");
  EXPECT_EQ(back.mutualSecret, "Incoming#Sec2");
  EXPECT_EQ(back.networkInterface, "nok2");
  EXPECT_EQ(back.port, 65535);
  EXPECT_EQ(Conf().find("Outgoing#Sec1"), std::string::npos);
  EXPECT_EQ(Conf().find("Incoming#Sec2"), std::string::npos);
}

TEST_F(DefaultsEditorTest, NoAuthenticationLeavesTheDefaultGroupWithoutCredential) {
  for (const std::string type : {"No-Authentication", ""}) {
    home_.WriteConf(kStandardConf);
    Parser::UpdateDefaultConfig(Defaults(type));

    EXPECT_NE(Conf().find("auth-group default {\n\t auth-type none\n}\n"), std::string::npos)
        << "type '" << type << "'\n"
        << Conf();
    const DefaultInfo back = Parser::GetDefaultInfo(true);
    EXPECT_EQ(back.authType, "No-Authentication");
    EXPECT_EQ(back.userid, "");
    EXPECT_EQ(back.secret, "");
    EXPECT_EQ(back.mutualUserid, "");
  }
}

TEST_F(DefaultsEditorTest, EmptyInterfaceKeepsTheListenAddress) {
  home_.WriteConf(StandardWith(kStandardListen, "\t listen nok3:4000\n"));
  Parser::UpdateDefaultConfig(Defaults("CHAP", "u", "Abcdefgh#123"));

  const DefaultInfo back = Parser::GetDefaultInfo(false);
  EXPECT_EQ(back.authType, "CHAP");
  EXPECT_EQ(back.networkInterface, "nok3");
  EXPECT_EQ(back.port, 4000);
}

TEST_F(DefaultsEditorTest, GivenInterfaceLeavesExactlyOneListenAddress) {
  home_.WriteConf(StandardWith(kStandardListen,
                               "\t listen nok0:3260\n\t listen nok1:3260\n\t listen nok2:3260\n"));
  DefaultInfo info = Defaults("No-Authentication");
  info.networkInterface = "nok5";
  Parser::UpdateDefaultConfig(info);

  ConfHandle handle(ConfHandle::kShareMode, NokCtl::Orva::IscsiTarget::Util::GetConfFilePath());
  const struct portal_group* pg = portal_group_find(handle.conf, "default");
  ASSERT_NE(pg, nullptr);
  const struct portal* portal = TAILQ_FIRST(&pg->pg_portals);
  ASSERT_NE(portal, nullptr);
  EXPECT_STREQ(portal->p_host, "nok5");
  EXPECT_STREQ(portal->p_port, "3260");
  EXPECT_EQ(TAILQ_NEXT(portal, p_next), nullptr);
}

TEST_F(DefaultsEditorTest, EachSaveRaisesTheGenerationByOneAndPublishesIt) {
  Parser::UpdateDefaultConfig(Defaults("No-Authentication"));
  EXPECT_EQ(Conf().rfind("generation 8\n", 0), 0u);
  EXPECT_EQ(PublishedGeneration(), 8u);

  Parser::UpdateDefaultConfig(Defaults("CHAP", "u", "Abcdefgh#123"));
  EXPECT_EQ(Conf().rfind("generation 9\n", 0), 0u);
  EXPECT_EQ(PublishedGeneration(), 9u);
}

TEST_F(DefaultsEditorTest, DropsTheCachedConfiguration) {
  Parser::GetDefaultInfo(false);
  ASSERT_EQ(ConfigCache::GetCachedConfGenNumber(), 7u);

  Parser::UpdateDefaultConfig(Defaults("No-Authentication"));
  EXPECT_EQ(ConfigCache::GetCachedConfGenNumber(), kNoGeneration);
  EXPECT_EQ(Parser::GetDefaultInfo(false).authType, "No-Authentication");
}

TEST_F(DefaultsEditorTest, FailedPublicationKeepsTheSaveAndStillDropsTheCache) {
  Parser::GetDefaultInfo(false);
  // The file stays reachable, but the namespace's identity cannot be read
  // from the link any more, so the generation cannot be published.
  const std::string root = home_.Path() + "/datastore";
  std::filesystem::rename(home_.NamespaceDir(), root + "/not-a-namespace-identity");
  std::filesystem::remove(root + "/.iSCSI-CONFIG");
  std::filesystem::create_directory_symlink("not-a-namespace-identity", root + "/.iSCSI-CONFIG");

  EXPECT_EQ(MessageOf([] { Parser::UpdateDefaultConfig(Defaults("No-Authentication")); }),
            "Failed to Update ZEL conf entry into BRIX with error: Failure");
  EXPECT_EQ(ReadFile(root + "/.iSCSI-CONFIG/etc/zel.conf").rfind("generation 8\n", 0), 0u);
  EXPECT_EQ(ConfigCache::GetCachedConfGenNumber(), kNoGeneration);
}

TEST_F(DefaultsEditorTest, SecretTooLongToEncodeChangesNothing) {
  const uint64_t published = PublishedGeneration();
  // 24 bytes need 32 Base64 characters: one more than the writer's buffer
  // leaves room for.
  const std::string secret = "Abcdefgh#123Abcdefgh#123";
  EXPECT_EQ(MessageOf([&] { Parser::UpdateDefaultConfig(Defaults("CHAP", "u", secret)); }),
            "Base64_Encode failed: Unexpected encoding size");

  EXPECT_EQ(Conf(), kStandardConf);
  EXPECT_EQ(PublishedGeneration(), published);
  EXPECT_EQ(Parser::GetDefaultInfo(false).userid, "defuser");
}

TEST_F(DefaultsEditorTest, FailedSwapChangesNothing) {
  const uint64_t published = PublishedGeneration();
  services_.files->FailNext(FileOp::AtomicUpdate, FILEIO_ERROR);
  EXPECT_EQ(MessageOf([] { Parser::UpdateDefaultConfig(Defaults("No-Authentication")); }),
            "Failed to swap config and temp config");

  EXPECT_EQ(Conf(), kStandardConf);
  EXPECT_EQ(PublishedGeneration(), published);
}

TEST_F(DefaultsEditorTest, FileLockedByAnotherProcessChangesNothing) {
  const std::string path = NokCtl::Orva::IscsiTarget::Util::GetConfFilePath();
  ChildProcess reader([&path](ChildControl& control) {
    const int fd = open(path.c_str(), O_RDONLY);
    if (fd < 0 || flock(fd, LOCK_SH) != 0) return 1;
    control.Ready();
    control.AwaitRelease();
    return 0;
  });
  ASSERT_TRUE(reader.AwaitReady());

  EXPECT_EQ(MessageOf([] { Parser::UpdateDefaultConfig(Defaults("No-Authentication")); }),
            "Parser: exclusive lock failed on " + path);
  reader.Release();
  EXPECT_EQ(reader.Join(), 0);
  EXPECT_EQ(Conf(), kStandardConf);
}

}  // namespace
}  // namespace test
}  // namespace zel
