// write_rows: turns the rows of ./dev bed on standard input (part, name, seconds, verdict and detail, with
// tabs between them) into a file of results.
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <sstream>

#include "sim/app/results.h"

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fputs("Usage: write_rows FILE\n", stderr);
    return 2;
  }
  std::vector<sim::Finding> findings;
  for (std::string line; std::getline(std::cin, line);) {
    std::istringstream cells(line);
    sim::Finding finding{};
    std::string seconds, verdict;
    for (std::string* cell : {&finding.group, &finding.name, &seconds, &verdict, &finding.verdict})
      std::getline(cells, *cell, '\t');
    finding.good = verdict != "FAILED";
    finding.seconds = std::atof(seconds.c_str());
    if (verdict != "-") findings.push_back(std::move(finding));
  }
  return sim::write_results(argv[1], "bed", findings) ? 0 : 1;
}
