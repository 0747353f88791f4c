// The table on the terminal, the JSON file and the data of the plot.
#include "bench/Report.h"

#include <fmt/format.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <cmath>
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

const char* verdict(const Target& target, const Spread& value) {
  const auto reachedBy = [&](double figure) {
    return target.bound == Target::Bound::kAtMost ? figure <= target.value : figure >= target.value;
  };
  if (reachedBy(value.low) != reachedBy(value.high)) return kUnresolved;
  return reachedBy(value.median) ? kReached : kMissed;
}

Json jsonOf(const Figure& figure) {
  Json json{{"name", figure.name},     {"against", figure.against},
            {"unit", figure.unit},     {"median", figure.value.median},
            {"low", figure.value.low}, {"high", figure.value.high},
            {"detail", figure.detail}};
  if (const auto& target = figure.target) {
    json["target"] = {{"bound", target->bound == Target::Bound::kAtMost ? "at most" : "at least"},
                      {"value", target->value}};
    json["verdict"] = verdict(*target, figure.value);
  }
  if (!figure.plotLine.empty()) {
    json["line"] = figure.plotLine;
    json["entries"] = figure.entries;
  }
  return json;
}

/// The texts and numbers of |json|'s fields.
std::string text(const Json& json, const char* field) {
  return json.value(field, "");
}
double number(const Json& json, const char* field) {
  return json.at(field).get<double>();
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
  take(jsonOf(figure));
}

void Report::take(Json figure) {
  const std::string unit = text(figure, "unit");
  std::string target = "-";
  if (figure.contains("target")) {
    const Json& json = figure.at("target");
    target = fmt::format("{} {:g}", text(json, "bound"), number(json, "value"));
  }
  fmt::print(kRow, text(figure, "name"),
             fmt::format("{:.4g}{}", number(figure, "median"), unit == "x" ? "" : " " + unit),
             fmt::format("{:.4g}..{:.4g}", number(figure, "low"), number(figure, "high")), target,
             text(figure, "verdict"), text(figure, "detail"));
  std::fflush(stdout);
  figures_.push_back(std::move(figure));
}

void Report::merge(const std::string& path) {
  try {
    const Json run = Json::parse(std::ifstream(path));
    for (Json figure : run.at("figures")) {
      figure["detail"] = text(figure, "detail") + "; " + text(run.at("machine"), "architecture");
      take(std::move(figure));
    }
  } catch (const Json::exception& error) {
    throw lab::Error("cannot read the figures in " + path + ": " + error.what());
  }
}

void Report::fail(const std::string& subject, const std::string& why) {
  complete_ = false;
  fmt::print("not measured: {}: {}\n", subject, why);
}

int Report::conclude() const {
  std::map<std::string, int> verdicts;
  for (const Json& figure : figures_) ++verdicts[text(figure, "verdict")];
  fmt::print("targets: {} reached, {} unresolved, {} missed{}\n", verdicts[kReached],
             verdicts[kUnresolved], verdicts[kMissed],
             complete_ ? "" : "; not everything could be measured");
  return verdicts[kMissed];
}

void Report::writeJson(const std::string& path) const {
  utsname system{};
  uname(&system);
  const Json all{{"machine",
                  {{"processor", processor()},
                   {"processors", sysconf(_SC_NPROCESSORS_ONLN)},
                   {"kernel", lab::kernelRelease()},
                   {"architecture", system.machine}}},
                 {"figures", figures_}};
  writeFile(path, all.dump(2) + '\n');
}

void Report::writePlotData(const std::string& path) const {
  std::map<std::string, std::string> lines;
  for (const Json& figure : figures_) {
    if (!figure.contains("line")) continue;
    const double target =
        figure.contains("target") ? number(figure.at("target"), "value") : std::nan("");
    lines[text(figure, "line")] +=
        fmt::format("{} {} {} {} {}\n", number(figure, "entries"), number(figure, "median"),
                    number(figure, "low"), number(figure, "high"), target);
  }
  std::string data;
  for (const auto& [name, points] : lines) {
    data += fmt::format("{}\"{}\"\n{}", data.empty() ? "" : "\n\n", name, points);
  }
  writeFile(path, data);
}

std::string grouped(std::size_t number) {
  return fmt::format("{},{:03}", number / 1000, number % 1000);
}

}  // namespace bench
