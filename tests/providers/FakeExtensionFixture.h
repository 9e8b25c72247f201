#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "providers/DSExtensionDocSource.h"
#include "tests/support/FakeExtension.h"
#include "tests/support/LogCapture.h"
#include "tests/support/TemporaryRoot.h"

/// A provider instance on an extension that does as it is told, and an empty log.
class FakeExtensionFixture : public testing::Test {
 protected:
  using Lines = std::vector<std::string>;
  using Answer = qx::test::ScriptedVendor::Answer;
  using LogCapture = qx::test::LogCapture;

  void SetUp() override {
    qx::test::temporaryRoot();
    ds_default_log().setLowestLevel(qx::LogLevel::debug);
    renew();
  }
  void renew() {
    extension = std::make_shared<qx::test::FakeExtension>("com.example.fake");
    provider = DSExtensionDocSource::initWithExtension(extension);
    LogCapture::mailbox().take();
  }

  const Answer failure{qx::test::providerFailure(), "x", qx::URL("file:///x")};
  LogCapture log;
  std::shared_ptr<qx::test::FakeExtension> extension;
  std::shared_ptr<DSExtensionDocSource> provider;
};
