#include "vantor/util/LogAccounts.hpp"

#include <gtest/gtest.h>

#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include <spdlog/logger.h>
#include <spdlog/sinks/base_sink.h>

#include "vantor/util/QMLogger.hpp"
#include "vantor/util/QMSharedLogger.hpp"

namespace vantor::util {
namespace {

using Level = QMLogger::Level;
using Line = std::pair<spdlog::level::level_enum, std::string>;

// Keeps what reaches spdlog: the level and the bare message text.
struct CapturingSink : spdlog::sinks::base_sink<std::mutex> {
  std::vector<Line> lines;
  void sink_it_(const spdlog::details::log_msg& msg) override {
    lines.emplace_back(msg.level, std::string(msg.payload.data(), msg.payload.size()));
  }
  void flush_() override {}
};

TEST(LogAccounts, WritesMessagesTheSharedLoggerWouldFilterOnceAndWithoutLocation) {
  const auto previousLogger = log().spdlogLogger();
  const auto previousLevel = log().minimumLevel();
  auto sink = std::make_shared<CapturingSink>();
  auto logger = std::make_shared<spdlog::logger>("capture", sink);
  logger->set_level(spdlog::level::off);  // the shared logger must lift this
  log().setSpdlogLogger(std::move(logger));
  log().setMinimumLevel(Level::error);

  // The shared logger itself drops them without building the text.
  bool built = false;
  log().print(Level::info, false, true, "f.cpp", "fn", 1, [&] {
    built = true;
    return std::string();
  });
  EXPECT_FALSE(built);

  logAccounts().debug("token refreshed {}");
  logAccounts().log(Level::verbose, "signed out");
  EXPECT_EQ(sink->lines, (std::vector<Line>{{spdlog::level::debug, "token refreshed {}"},
                                            {spdlog::level::trace, "signed out"}}));

  log().setSpdlogLogger(previousLogger);
  log().setMinimumLevel(previousLevel);
}

}  // namespace
}  // namespace vantor::util
