#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "plugin.h"
#include "plugins/logcat_window.h"

namespace emberline {

// Frame statistics of the headset's runtime, averaged per output over its log lines.
class LogcatRavelinPlugin : public logcat::WindowedPlugin {
 public:
  // One report field: picks its number out of comma-separated pieces of log lines.
  class IRavelinFieldReader {
   public:
    virtual void parse(std::string token) = 0;
    virtual void reset() = 0;
    virtual void finalize() = 0;
    virtual ~IRavelinFieldReader() = default;
  };

  template <typename T>
  class RavelinFieldReader : public IRavelinFieldReader {
   public:
    explicit RavelinFieldReader(std::function<float(std::string)> parser)
        : parser(std::move(parser)) {}

    void parse(std::string token) override;
    void reset() override {
      sum = 0.0f;
      count = 0;
    }
    void finalize() override;

    std::function<float(std::string)> parser;
    float sum = 0.0f;
    std::int32_t count = 0;
    std::shared_ptr<T> value = std::make_shared<T>();
  };

  // What a parser gives for a piece that does not hold its field: the largest finite float.
  static const float kNoMatch;

  LogcatRavelinPlugin();

  void add_field(const std::string& key, const std::string& description,
                 std::function<float(std::string)> parser);

  bool on_output() override;

 private:
  std::vector<std::shared_ptr<IRavelinFieldReader>> readers;
};

}  // namespace emberline
