// Feeds arbitrary bytes to bufplay's input decoder (what standard input and files go through: the
// format decision, the WAV header reader, the converter and the MP3 meter), with the options taken
// from the first bytes, in one piece and in chunks whose sizes come from the input. Aborts when the
// decoder throws anything but BadInput, when the two chunkings disagree on whether the input plays
// or, for audio that is not converted, on the audio itself.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <span>
#include <vector>

#include "BadInput.h"
#include "InputDecoder.h"

namespace {

void check(bool condition, const char* what) {
  if (!condition) {
    std::fprintf(stderr, "input_decoder_fuzzer: %s\n", what);
    std::abort();
  }
}

struct Decoded {
  bool refused = false;
  std::vector<uint8_t> audio;
  std::string conversion;
};

// Decodes the input in chunks of the sizes `sizes` gives in turn (0: in one piece).
Decoded Decode(const InputHints& hints, std::span<const uint8_t> input, std::span<const uint8_t> sizes) {
  Decoded decoded;
  InputDecoder decoder(hints);
  try {
    size_t next = 0;
    for (size_t at = 0; at < input.size();) {
      const size_t size = sizes.empty() ? input.size() : 1 + sizes[next++ % sizes.size()] % 97;
      decoder.take(input.subspan(at, std::min(size, input.size() - at)));
      at += std::min(size, input.size() - at);
      const DecodedAudio audio = decoder.takeAudio(size * 3);
      check(audio.seconds >= 0, "negative seconds");
      decoded.audio.insert(decoded.audio.end(), audio.bytes.begin(), audio.bytes.end());
    }
    decoder.finish();
  } catch (const BadInput&) {
    decoded.refused = true;
    return decoded;
  }
  check(decoder.formatKnown(), "finished without a format");
  const DecodedAudio rest = decoder.takeAudio(SIZE_MAX);
  decoded.audio.insert(decoded.audio.end(), rest.bytes.begin(), rest.bytes.end());
  decoded.conversion = decoder.conversion();
  return decoded;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 4) return 0;
  using namespace QEN_TTS::Audio;
  const uint8_t options = data[0];
  InputHints hints;
  const char* names[] = {"-", "in.wav", "in.mp3", "in.raw"};
  hints.name = names[options & 3];
  hints.formatFromName = hints.name != "-";
  const AudioPlayerAudioFormats formats[] = {EAudioPlayerAudioFormat_PCM8K, EAudioPlayerAudioFormat_PCM16K,
                                             EAudioPlayerAudioFormat_MP3};
  if ((options >> 2 & 3) < 3) hints.format = formats[options >> 2 & 3];
  if (options & 0x10) hints.rawRate = uint32_t(4000 + (data[1] | data[2] << 8) % 44000);
  const std::span<const uint8_t> sizes(data + 3, size_t(data[3] % 8));
  const std::span<const uint8_t> input = std::span(data, size).subspan(4);

  const Decoded whole = Decode(hints, input, {});
  const Decoded chunked = Decode(hints, input, sizes.empty() ? std::span(data + 1, 2) : sizes);
  check(whole.refused == chunked.refused, "the chunking decides whether the input plays");
  if (whole.refused) return 0;
  if (whole.conversion.empty()) check(whole.audio == chunked.audio, "the chunking changes the audio");
  return 0;
}
