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

/// As many digits as tell a figure from its target.
std::string shortNumber(double value) {
  if (value >= 1e6) return fmt::format("{:.1f}M", value / 1e6);
  if (value >= 100) return fmt::format("{:.0f}", value);
  if (value >= 10) return fmt::format("{:.1f}", value);
  return fmt::format("{:.3f}", value);
}

std::string targetText(const Figure& figure) {
  if (!figure.target) return "-";
  const bool most = figure.target->bound == Target::Bound::kAtMost;
  return fmt::format("{} {:g}", most ? "<=" : ">=", figure.target->value);
}

nlohmann::ordered_json targetJson(const Target& target) {
  return {{"bound", target.bound == Target::Bound::kAtMost ? "at most" : "at least"},
          {"value", target.value}};
}

/// The inverse of targetJson().
std::optional<Target> readTarget(const nlohmann::json& figure) {
  if (!figure.contains("target")) return std::nullopt;
  const auto& target = figure.at("target");
  const double value = target.at("value");
  return target.at("bound") == "at most" ? atMost(value) : atLeast(value);
}

Figure readFigure(const nlohmann::json& figure, const nlohmann::json& machine) {
  auto name = figure.at("name").get<std::string>();
  const auto kernel = machine.at("kernel").get<std::string>();
  if (name.find(kernel) == std::string::npos) name += " on kernel " + kernel;
  return {std::move(name),
          figure.at("against"),
          {figure.at("median"), figure.at("low"), figure.at("high")},
          figure.at("unit"),
          readTarget(figure),
          figure.at("detail").get<std::string>() + "; " +
              machine.at("architecture").get<std::string>()};
}

/// A target between the quartiles is neither reached nor missed: this run does not tell.
bool isUnresolved(const Figure& figure) {
  return figure.target->reachedBy(figure.value.low) != figure.target->reachedBy(figure.value.high);
}

const char* verdict(const Figure& figure) {
  if (!figure.target) return "";
  if (isUnresolved(figure)) return "unresolved";
  return figure.target->reachedBy(figure.value.median) ? "ok" : "MISSED";
}

void printRow(const std::string& name, const std::string& value, const std::string& spread,
              const std::string& target, const std::string& verdict, const std::string& detail) {
  fmt::print("{:<58} {:>10} {:>15} {:>8} {:<10}  {}\n", name, value, spread, target, verdict,
             detail);
  std::fflush(stdout);
}

std::string machineModel() {
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
  printRow("figure", "median", "quartiles", "target", "", "");
}

void Report::add(Figure figure) {
  const std::string unit = figure.unit == "x" ? "" : " " + figure.unit;
  printRow(figure.name, shortNumber(figure.value.median) + unit,
           shortNumber(figure.value.low) + ".." + shortNumber(figure.value.high),
           targetText(figure), verdict(figure), figure.detail);
  figures_.push_back(std::move(figure));
}

void Report::merge(const std::string& path) {
  try {
    const auto run = nlohmann::json::parse(std::ifstream(path));
    for (const auto& figure : run.at("figures")) add(readFigure(figure, run.at("machine")));
  } catch (const nlohmann::json::exception& error) {
    throw lab::Error("cannot read the figures in " + path + ": " + error.what());
  }
}

void Report::fail(const std::string& subject, const std::string& why) {
  failures_.push_back(fmt::format("{}: {}", subject, why));
  fmt::print("not measured: {}\n", failures_.back());
}

bool Report::conclude() const {
  int targets = 0;
  int reached = 0;
  int unresolved = 0;
  for (const Figure& figure : figures_) {
    if (!figure.target) continue;
    ++targets;
    if (isUnresolved(figure)) {
      ++unresolved;
    } else if (figure.target->reachedBy(figure.value.median)) {
      ++reached;
    } else {
      fmt::print("missed: {}: {:.4g} instead of {}\n", figure.name, figure.value.median,
                 targetText(figure));
    }
  }
  fmt::print("{} of {} targets reached, {} unresolved\n", reached, targets, unresolved);
  for (const std::string& failure : failures_) fmt::print("not measured: {}\n", failure);
  return reached + unresolved == targets;
}

void Report::writeJson(const std::string& path) const {
  utsname system{};
  uname(&system);
  nlohmann::ordered_json all{{"machine",
                              {{"processor", machineModel()},
                               {"processors", sysconf(_SC_NPROCESSORS_ONLN)},
                               {"kernel", lab::kernelRelease()},
                               {"architecture", system.machine}}},
                             {"figures", nlohmann::ordered_json::array()}};
  for (const Figure& figure : figures_) {
    nlohmann::ordered_json entry{{"name", figure.name},     {"against", figure.against},
                                 {"unit", figure.unit},     {"median", figure.value.median},
                                 {"low", figure.value.low}, {"high", figure.value.high},
                                 {"detail", figure.detail}};
    if (figure.target) {
      entry["target"] = targetJson(*figure.target);
      entry["verdict"] = verdict(figure);
    }
    all["figures"].push_back(std::move(entry));
  }
  writeFile(path, all.dump(2) + '\n');
}

void Report::writePlotData(const std::string& path) const {
  std::map<std::string, std::string> blocks;
  for (const Figure& figure : figures_) {
    if (!figure.point) continue;
    std::string& block = blocks[figure.point->line];
    if (block.empty()) block = fmt::format("# {}\n", figure.point->line);
    block += fmt::format("{} {} {} {}\n", figure.point->at, figure.value.median, figure.value.low,
                         figure.value.high);
  }
  std::string text;
  for (const auto& [line, block] : blocks) text += block + "\n\n";
  writeFile(path, text);
}

std::string grouped(std::size_t number) {
  std::string text = std::to_string(number);
  for (std::size_t at = text.size(); at > 3;) text.insert(at -= 3, 1, ',');
  return text;
}

}  // namespace bench
