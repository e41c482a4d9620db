#include "sim/app/results.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <fstream>
#include <nlohmann/json.hpp>
#include <pugixml.hpp>

namespace sim {

namespace {

double to_thousandths(double value) { return std::round(value * 1000) / 1000; }

std::string three_decimals(double value) {
  char text[32];
  std::snprintf(text, sizeof(text), "%.3f", value);
  return text;
}

void write_json(std::ostream& file, const std::string& run, const std::vector<Finding>& findings) {
  nlohmann::ordered_json all = {{"run", run},
                                {"good", std::ranges::all_of(findings, &Finding::good)},
                                {"findings", nlohmann::ordered_json::array()}};
  for (const Finding& finding : findings) {
    nlohmann::ordered_json row = {{"group", finding.group},
                                  {"name", finding.name},
                                  {"good", finding.good},
                                  {"verdict", finding.verdict},
                                  {"seconds", to_thousandths(finding.seconds)}};
    for (const auto& [name, value] : finding.figures) row["figures"][name] = to_thousandths(value);
    all["findings"].push_back(std::move(row));
  }
  file << all.dump(2, ' ', false, nlohmann::json::error_handler_t::replace) << '\n';
}

void write_junit(std::ostream& file, const std::string& run, const std::vector<Finding>& findings) {
  pugi::xml_document document;
  pugi::xml_node suite = document.append_child("testsuite");
  suite.append_attribute("name") = run.c_str();
  suite.append_attribute("tests") = findings.size();
  suite.append_attribute("failures") = std::ranges::count(findings, false, &Finding::good);
  for (const Finding& finding : findings) {
    pugi::xml_node row = suite.append_child("testcase");
    row.append_attribute("classname") = (run + '.' + finding.group).c_str();
    row.append_attribute("name") = finding.name.c_str();
    row.append_attribute("time") = three_decimals(finding.seconds).c_str();
    if (!finding.good) row.append_child("failure").append_attribute("message") = finding.verdict.c_str();
    std::string output = finding.verdict + '\n';
    for (const auto& [name, value] : finding.figures) output += name + ": " + three_decimals(value) + '\n';
    row.append_child("system-out").text() = output.c_str();
  }
  document.save(file, "  ");
}

}  // namespace

bool write_results(const std::string& path, const std::string& run, const std::vector<Finding>& findings) {
  std::ofstream file(path);
  (path.ends_with(".xml") ? write_junit : write_json)(file, run, findings);
  if (file.flush()) return true;
  std::perror(path.c_str());
  return false;
}

}  // namespace sim
