// The table on the terminal, and the JSON file.
#include "bench/Report.h"

#include <fmt/format.h>
#include <nlohmann/json.hpp>
#include <sys/utsname.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <map>
#include <utility>

#include "lab/Error.h"
#include "lab/Kernel.h"

namespace bench {
namespace {

using Json = nlohmann::ordered_json;

constexpr char kRow[] = "{:<58} {:>8} {:>14} {:>13} {:<10}  {}\n";

constexpr char kReached[] = "ok";
constexpr char kMissed[] = "MISSED";
constexpr char kUnresolved[] = "unresolved";  ///< the target lies between the quartiles

/// Empty for a figure without a target.
std::string verdict(const Figure& figure) {
  if (!figure.target) return "";
  const auto reachedBy = [&target = *figure.target](double value) {
    return target.bound == Target::Bound::kAtMost ? value <= target.value : value >= target.value;
  };
  if (reachedBy(figure.value.low) != reachedBy(figure.value.high)) return kUnresolved;
  return reachedBy(figure.value.median) ? kReached : kMissed;
}

std::string targetText(const std::optional<Target>& target) {
  if (!target) return "-";
  const bool most = target->bound == Target::Bound::kAtMost;
  return fmt::format("{} {:g}", most ? "at most" : "at least", target->value);
}

Json jsonOf(const Figure& figure) {
  Json json{{"name", figure.name},     {"against", figure.against},
            {"unit", figure.unit},     {"median", figure.value.median},
            {"low", figure.value.low}, {"high", figure.value.high},
            {"detail", figure.detail}};
  if (figure.target) {
    json["target"] = targetText(figure.target);
    json["verdict"] = verdict(figure);
  }
  return json;
}

std::string processor() {
  std::ifstream info("/proc/cpuinfo");
  for (std::string line; std::getline(info, line);) {
    if (line.starts_with("model name")) return line.substr(line.find(':') + 2);
  }
  return "unknown";
}

void writeFile(const std::string& path, const std::string& text) {
  std::ofstream file(path);
  file << text;
  file.close();
  if (!file) throw lab::systemError("cannot write " + path);
}

}  // namespace

Report::Report() {
  fmt::print(kRow, "figure", "median", "quartiles", "target", "", "");
}

void Report::add(const Figure& figure) {
  const Spread& value = figure.value;
  fmt::print(kRow, figure.name,
             fmt::format("{:.4g}{}", value.median, figure.unit == "x" ? "" : " " + figure.unit),
             fmt::format("{:.4g}..{:.4g}", value.low, value.high), targetText(figure.target),
             verdict(figure), figure.detail);
  std::fflush(stdout);
  figures_.push_back(figure);
}

void Report::fail(const std::string& subject, const std::string& why) {
  complete_ = false;
  fmt::print("not measured: {}: {}\n", subject, why);
}

int Report::conclude() const {
  std::map<std::string, int> verdicts;
  for (const Figure& figure : figures_) ++verdicts[verdict(figure)];
  fmt::print("targets: {} reached, {} unresolved, {} missed{}\n", verdicts[kReached],
             verdicts[kUnresolved], verdicts[kMissed],
             complete_ ? "" : "; not everything could be measured");
  return verdicts[kMissed];
}

void Report::writeJson(const std::string& path) const {
  utsname system{};
  uname(&system);
  Json all{{"machine",
            {{"processor", processor()},
             {"processors", sysconf(_SC_NPROCESSORS_ONLN)},
             {"kernel", lab::kernelRelease()},
             {"architecture", system.machine}}}};
  for (const Figure& figure : figures_) all["figures"].push_back(jsonOf(figure));
  writeFile(path, all.dump(2) + '\n');
}

std::string grouped(std::size_t number) {
  return fmt::format("{},{:03}", number / 1000, number % 1000);
}

}  // namespace bench
