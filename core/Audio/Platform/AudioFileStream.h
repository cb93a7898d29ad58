// The MP3 stream parser: takes bytes in chunks of any size and reports the stream's format and
// complete packets (MP3 frames) through two callbacks.
//
// Guarantees:
// - The packets do not depend on how the stream is cut into chunks: one byte at a time gives the
//   same packets, in the same order, as the whole stream at once. Time is linear in the bytes and
//   memory is fixed: a parser keeps at most one frame and a header between calls.
// - ID3v2 (any size), ID3v1 and APE tags and junk between frames are skipped. A frame is trusted
//   only when the header after it agrees (same MPEG version, rate and channel count), and again after
//   junk. The Xing, Info or VBRI frame that starts a stream is not delivered; one met later is audio.
// - Handles are never reused within the process. A call with an unknown or closed handle returns
//   kAudioFileStreamError_InvalidStream and touches no memory of the closed parser.
//
// Threads: a parser is fed and queried by one thread at a time (ParseBytes or GetProperty on one
// parser from two threads at once is a data race); separate parsers are independent, and Open and
// Close are callable from any thread. Both callbacks run synchronously, on the calling thread,
// inside AudioFileStreamParseBytes. A callback may read properties of its parser; it must not feed
// it (that call fails with kAudioFileStreamError_IllegalOperation) and should not close it (the
// parser then lives until the feeding call returns).
#pragma once

#include "Audio/Platform/PlatformTypes.h"

// A property became known: kAudioFileStreamProperty_DataFormat, then
// kAudioFileStreamProperty_ReadyToProducePackets before the first packets (again, before the first
// packet of the new format, after a change of rate or channel count). ioFlags is not used.
typedef void (*AudioFileStream_PropertyListenerProc)(void* inClientData, AudioFileStreamID inAudioFileStream,
                                                     AudioFileStreamPropertyID inPropertyID, uint32_t* ioFlags);
// Complete packets: inPacketDescriptions[i] gives each packet's offset within inInputData and size;
// the packets are contiguous and fill inNumberBytes. inInputData points into the bytes being fed
// where the frames lie wholly in them, else into the parser; it is valid only during the call.
typedef void (*AudioFileStream_PacketsProc)(void* inClientData, uint32_t inNumberBytes, uint32_t inNumberPackets,
                                            const void* inInputData,
                                            AudioStreamPacketDescription* inPacketDescriptions);

// The hint may be 0 or kAudioFileMP3Type; any other is refused with
// kAudioFileStreamError_UnsupportedFileType. Null callbacks or handle pointer:
// kAudioFileStreamError_IllegalOperation. Callable from any thread.
OSStatus AudioFileStreamOpen(void* inClientData, AudioFileStream_PropertyListenerProc inPropertyListenerProc,
                             AudioFileStream_PacketsProc inPacketsProc, AudioFileTypeID inFileTypeHint,
                             AudioFileStreamID* outAudioFileStream);

// Feeds bytes; an incomplete frame waits for the next call. inFlags is ignored. Null inData with a
// non-zero size: kAudioFileStreamError_IllegalOperation.
// Returns kAudioFileStreamError_InvalidFile when no frame is found within 4 KiB of junk at the start
// of the stream (tags do not count), and from then on for every call: the parser has failed for
// good. Once a frame was found, junk is skipped without error until the frames go on. A tag that
// claims more bytes than ever arrive swallows them quietly.
OSStatus AudioFileStreamParseBytes(AudioFileStreamID inAudioFileStream, uint32_t inDataByteSize, const void* inData,
                                   uint32_t inFlags);

// kAudioFileStreamProperty_DataFormat: an AudioStreamBasicDescription (size 40): mSampleRate,
// mFormatID kAudioFormatMPEGLayer3, mFramesPerPacket 1152 (MPEG-1) or 576 (MPEG-2 and 2.5),
// mChannelsPerFrame, every other field 0; kAudioFileStreamError_DataUnavailable before the first
// frame. kAudioFileStreamProperty_ReadyToProducePackets: a uint32_t, 1 once the format is known.
// A smaller *ioPropertyDataSize fails with kAudioFileStreamError_BadPropertySize, null pointers with
// kAudioFileStreamError_IllegalOperation; on success *ioPropertyDataSize is set to the size written.
OSStatus AudioFileStreamGetProperty(AudioFileStreamID inAudioFileStream, AudioFileStreamPropertyID inPropertyID,
                                    uint32_t* ioPropertyDataSize, void* outPropertyData);

// Frees the parser; the handle is unknown from then on. Callable from any thread; a call on the
// parser that is still running keeps it alive until it returns.
OSStatus AudioFileStreamClose(AudioFileStreamID inAudioFileStream);
