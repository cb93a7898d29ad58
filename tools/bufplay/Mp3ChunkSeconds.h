// How much audio each chunk of an MP3 file carries, measured with the platform's own stream parser
// so that the producer paces by the frames the player will see (tags, an Info frame and junk
// carry none; a change of rate mid-stream is followed).
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

// Seconds of audio in each successive chunkBytes-sized piece of the file. Chunks after bytes that
// the parser rejects count as none.
std::vector<double> Mp3ChunkSeconds(std::span<const uint8_t> file, size_t chunkBytes);
