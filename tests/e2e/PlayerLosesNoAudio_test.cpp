// The real player plays every byte of PCM it accepted, in order, however the producer cuts it: a
// corpus sentence in random chunks (odd sizes and single bytes included) is recorded by the WAV
// output and compared byte for byte. A 16-bit stream that ends on an odd byte cannot play that half
// sample: the player drops it, and the rest is heard.
#include <random>

#include "e2e/PlayerSentence.h"

namespace bufplay_test {
namespace {

// A first chunk of half a second, as a speech engine's is: a shorter one could play out before the
// next arrives, which the WAV output would record as silence. Then mostly a few kilobytes, one
// chunk in four a handful of bytes.
std::vector<Chunk> RandomChunks(const std::vector<uint8_t>& sentence, Format format, uint32_t seed) {
  std::mt19937 random(seed);
  std::vector<Chunk> chunks;
  for (size_t at = 0; at < sentence.size();) {
    const size_t wanted = at == 0 ? 16000 : random() % 4 ? 1 + random() % 8000 : 1 + random() % 9;
    const size_t size = std::min(sentence.size() - at, wanted);
    const auto from = sentence.begin() + std::ptrdiff_t(at);
    chunks.push_back({std::vector<uint8_t>(from, from + std::ptrdiff_t(size)), format});
    at += size;
  }
  return chunks;
}

TEST(PlayerLosesNoAudio, RandomChunksOfASentenceAreHeardByteForByte) {
  const struct {
    const char* file;
    Format format;
    uint32_t rate;
    bool oddByteAtTheEnd;
  } cases[] = {{"fox_s16le_8000.pcm", kPCM8K, 8000, false}, {"hello_s16le_16000.pcm", kPCM16K, 16000, true}};
  for (const auto& c : cases) {
    for (const uint32_t seed : {1u, 2u}) {
      SCOPED_TRACE(testing::Message() << c.file << ", seed " << seed);
      std::vector<uint8_t> sentence = ReadCorpusFile(c.file);
      if (c.oddByteAtTheEnd) sentence.push_back(0x5A);
      const std::vector<Chunk> chunks = RandomChunks(sentence, c.format, seed);
      // Twice as fast as real time keeps the 20 buffers' lead ahead of a loaded machine's stalls.
      const SentenceOutcome outcome = PlaySentence(chunks, "PlaybackFinished", 2.0);
      EXPECT_EQ(outcome.results, std::vector<AudioBufPlayerError>(chunks.size(), AudioBufPlayerError_OK));
      ASSERT_EQ(outcome.recordings.size(), 1u);
      EXPECT_EQ(outcome.recordings[0].rate, c.rate);
      const std::vector<int16_t> fed = Samples(sentence);
      const std::vector<int16_t>& heard = outcome.recordings[0].samples;
      EXPECT_TRUE(heard == fed) << chunks.size() << " chunks: " << fed.size() << " samples fed, " << heard.size()
                                << " heard" << (FedWithOnlySilenceAdded(fed, heard) ? ", with silence added" : "");
    }
  }
}

}  // namespace
}  // namespace bufplay_test
