// Parses ended by an exception: the exception reaches the caller with the
// model's message, the stream is closed, and ZeldCleanConf removes the
// partly built conf so that the next parse starts clean.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <string>

#include "conf/reader_state.h"
#include "reader_fixture.h"
#include "zel/OrvaCtlException.h"

namespace {

using HostCtl::Lib::Orva::OrvaCtlException;
using ::testing::StartsWith;

class ReaderExceptionsTest : public zel::test::ReaderFixture {
 protected:
  // Reads `path` and returns the message of the exception the reader
  // throws, checking what it leaves for ZeldCleanConf and what that removes.
  std::string ThrownReading(const std::string& path) {
    const int descriptors = OpenDescriptors();
    FileIODescriptor file;
    EXPECT_EQ(0, conf_file_open_share_lock(path.c_str(), &file, 300000));
    std::string message = "(nothing thrown)";
    try {
      conf_delete(conf_new_from_file(&file, nullptr));
    } catch (const OrvaCtlException& e) {
      message = e.GetMessage();
      EXPECT_NE(nullptr, zeld_reader.conf) << "the partial conf is ZeldCleanConf's to delete";
      EXPECT_EQ(nullptr, zeldParser_in) << "the stream is closed before the rethrow";
      ZeldCleanConf();
    }
    EXPECT_EQ(nullptr, zeld_reader.conf);
    EXPECT_EQ(nullptr, zeld_reader.auth_group);
    EXPECT_EQ(nullptr, zeld_reader.target);
    conf_close_file(&file);
    EXPECT_EQ(descriptors, OpenDescriptors());
    return message;
  }

  std::string ThrownReadingText(const std::string& text) {
    zel::test::WriteFile(path_, text);
    return ThrownReading(path_);
  }
};

TEST_F(ReaderExceptionsTest, MalformedInitiatorPortalOfAnAuthGroupThrows) {
  EXPECT_EQ("Incorrect initiator portal '10.0.0.1/33'",
            ThrownReadingText("initiator-group ig {\n initiator iqn.2024-01.org.example:a\n}\n"
                              "auth-group ag {\n initiator-group ig\n"
                              " initiator-portal 10.0.0.1/33\n}\n"
                              "target iqn.2024-01.org.example:t {\n}\n"));
}

TEST_F(ReaderExceptionsTest, MalformedInitiatorPortalOfATargetThrows) {
  EXPECT_EQ("Incorrect initiator portal '[fe80::1]/129'",
            ThrownReadingText("target iqn.2024-01.org.example:t {\n"
                              " initiator-name iqn.2024-01.org.example:host\n"
                              " initiator-portal [fe80::1]/129\n"
                              " lun 0 {\n  path p\n }\n}\n"));
}

TEST_F(ReaderExceptionsTest, UndecodableSecretThrows) {
  EXPECT_THAT(ThrownReadingText("auth-group ag {\n chap user \"!!not base64!!\"\n}\n"),
              StartsWith("Base64_Decode"));
  // Decoded, the secret would not fit the secret buffer.
  EXPECT_THAT(ThrownReadingText("auth-group ag {\n chap-mutual u QWJjZGVmZ2gjMTIz v \"" +
                                std::string(60, 'Q') + "\"\n}\n"),
              StartsWith("Base64_Decode"));
}

TEST_F(ReaderExceptionsTest, ScannerFailureThrowsInsteadOfEndingTheProcess) {
  // A directory opens and locks like a file but cannot be read.
  const std::string directory = host_.Home() + "/zel.conf.d";
  ASSERT_EQ(0, mkdir(directory.c_str(), 0700));
  EXPECT_EQ("input in flex scanner failed", ThrownReading(directory));
}

TEST_F(ReaderExceptionsTest, NextParseAfterAnExceptionStartsClean) {
  ThrownReadingText("generation 9\nauth-group ag {\n initiator-portal 1.2.3.4/99\n}\n");

  host_.Log().Clear();
  EXPECT_EQ(nullptr, Read("generation 3\nbogus\n"));
  EXPECT_TRUE(WasLogged("error in configuration file at line 2 near 'bogus': syntax error"));
  ASSERT_NE(nullptr, Read("generation 3\nauth-group ag {\n}\n"));
  EXPECT_EQ(3u, conf_->conf_generation);
  EXPECT_NE(nullptr, auth_group_find(conf_, "ag"));
}

}  // namespace
