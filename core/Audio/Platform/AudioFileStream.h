// The MP3 stream parser: takes bytes in chunks of any size and reports the stream's format and
// complete packets (MP3 frames) through two callbacks.
//
// Threads: a parser is used by one thread at a time. Both callbacks run synchronously, on the
// calling thread, inside AudioFileStreamParseBytes.
#pragma once

#include "Audio/Platform/PlatformTypes.h"

typedef struct OpaqueAudioFileStreamID* AudioFileStreamID;

// A property became known: kAudioFileStreamProperty_DataFormat, then
// kAudioFileStreamProperty_ReadyToProducePackets before the first packets (again after a change of
// rate or channel count). ioFlags is not used.
typedef void (*AudioFileStream_PropertyListenerProc)(void* inClientData, AudioFileStreamID inAudioFileStream,
                                                     AudioFileStreamPropertyID inPropertyID, uint32_t* ioFlags);
// Complete packets: inPacketDescriptions[i] gives each packet's offset within inInputData and size.
typedef void (*AudioFileStream_PacketsProc)(void* inClientData, uint32_t inNumberBytes, uint32_t inNumberPackets,
                                            const void* inInputData,
                                            AudioStreamPacketDescription* inPacketDescriptions);

OSStatus AudioFileStreamOpen(void* inClientData, AudioFileStream_PropertyListenerProc inPropertyListenerProc,
                             AudioFileStream_PacketsProc inPacketsProc, AudioFileTypeID inFileTypeHint,
                             AudioFileStreamID* outAudioFileStream);

// Feeds bytes; an incomplete frame waits for the next call. Returns a non-zero status for bytes in
// which no MP3 can be found (kAudioFileStreamError_InvalidFile).
OSStatus AudioFileStreamParseBytes(AudioFileStreamID inAudioFileStream, uint32_t inDataByteSize, const void* inData,
                                   uint32_t inFlags);

// kAudioFileStreamProperty_DataFormat: an AudioStreamBasicDescription (size 40).
OSStatus AudioFileStreamGetProperty(AudioFileStreamID inAudioFileStream, AudioFileStreamPropertyID inPropertyID,
                                    uint32_t* ioPropertyDataSize, void* outPropertyData);

OSStatus AudioFileStreamClose(AudioFileStreamID inAudioFileStream);
