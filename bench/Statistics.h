// Clocks, percentiles and the table rows that the player benchmarks print.
#pragma once

#include <string>
#include <vector>

double WallSeconds();
// CPU time (user + system) of this process, or of its waited-for children.
double ProcessCpuSeconds();
double ChildrenCpuSeconds();
// CPU time of this process's threads named `name` (as their creator set it), from the kernel's
// scheduler statistics; 0 when the kernel does not keep them.
double ThreadsCpuSeconds(const std::string& name);
// Context switches (voluntary and involuntary) of all threads of this process so far.
double ProcessContextSwitches();
// The value below which `fraction` of the samples lie (nearest rank); 0 for no samples.
double Percentile(std::vector<double> samples, double fraction);
// One Markdown row of the results table, on standard output.
void PrintRow(const std::string& measure, const std::string& figure, const std::string& target);
std::string Format(const char* format, double value);
