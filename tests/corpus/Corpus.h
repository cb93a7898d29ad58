// The tests' way into the project's corpus (ABP_CORPUS_DIR: tests/corpus/data, made by
// tests/corpus/make). Read only from inside the test that needs it: a file that cannot be read throws,
// which fails that test once, with the file's path, and no other.
#pragma once

#include <cstdint>
#include <cstring>
#include <fstream>
#include <iterator>
#include <map>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

namespace corpus {

// The path of a corpus file that can be read.
inline std::string CorpusPath(const std::string& name) {
  const std::string path = std::string(ABP_CORPUS_DIR) + "/" + name;
  if (!std::ifstream(path).good()) throw std::runtime_error("cannot read corpus file " + path);
  return path;
}

inline std::vector<uint8_t> ReadCorpusFile(const std::string& name) {
  std::ifstream in(CorpusPath(name), std::ios::binary);
  return std::vector<uint8_t>(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

// A corpus file of 16-bit little-endian samples.
inline std::vector<int16_t> ReadCorpusSamples(const std::string& name) {
  const std::vector<uint8_t> bytes = ReadCorpusFile(name);
  std::vector<int16_t> samples(bytes.size() / 2);
  std::memcpy(samples.data(), bytes.data(), samples.size() * 2);
  return samples;
}

// A tab-separated corpus file with a header row (MANIFEST.tsv, <name>.frames.tsv), each row as
// column name -> text.
inline std::vector<std::map<std::string, std::string>> ReadTsv(const std::string& name) {
  std::ifstream in(CorpusPath(name));
  const auto split = [](const std::string& line) {
    std::vector<std::string> cells;
    std::stringstream stream(line);
    for (std::string cell; std::getline(stream, cell, '\t');) cells.push_back(cell);
    return cells;
  };
  std::string line;
  std::getline(in, line);
  const std::vector<std::string> columns = split(line);
  std::vector<std::map<std::string, std::string>> rows;
  while (std::getline(in, line)) {
    const std::vector<std::string> cells = split(line);
    auto& row = rows.emplace_back();
    for (size_t i = 0; i < columns.size() && i < cells.size(); ++i) row[columns[i]] = cells[i];
  }
  return rows;
}

}  // namespace corpus
