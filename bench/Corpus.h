// Audio of the test corpus (tests/corpus/data), read whole, and looped to the length a benchmark needs.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

std::vector<uint8_t> ReadCorpusFile(const std::string& name);
// The file `times` times over, to make a long sentence of a short one.
std::vector<uint8_t> LoopedCorpusFile(const std::string& name, int times);
