#include "Corpus.h"

#include <fstream>
#include <iterator>
#include <stdexcept>

std::vector<uint8_t> ReadCorpusFile(const std::string& name) {
  std::ifstream in(std::string(ABP_CORPUS_DIR) + "/" + name, std::ios::binary);
  std::vector<uint8_t> bytes{std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
  if (bytes.empty()) throw std::runtime_error("corpus file missing or empty: " + name);
  return bytes;
}

std::vector<uint8_t> LoopedCorpusFile(const std::string& name, int times) {
  const std::vector<uint8_t> once = ReadCorpusFile(name);
  std::vector<uint8_t> looped;
  looped.reserve(once.size() * size_t(times));
  for (int i = 0; i < times; ++i) looped.insert(looped.end(), once.begin(), once.end());
  return looped;
}
