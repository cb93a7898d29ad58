// Plain types and constants of the audio services the player is written against.
// They mirror the iOS-style audio toolbox so that the player reads like code for that API;
// everything here is data only, shared by the real platform and the test fake.
#pragma once

#include <cstdint>

typedef int32_t OSStatus;
typedef uint32_t AudioFormatID;
typedef uint32_t AudioFormatFlags;
typedef uint32_t AudioFileTypeID;
typedef uint32_t AudioFileStreamPropertyID;
typedef uint32_t AudioQueuePropertyID;
typedef uint32_t AudioQueueParameterID;
typedef float AudioQueueParameterValue;

// Builds a four-character code from its text, most significant byte first: FourCC("!int").
constexpr uint32_t FourCC(const char (&text)[5]) {
  return (uint32_t(uint8_t(text[0])) << 24) | (uint32_t(uint8_t(text[1])) << 16) |
         (uint32_t(uint8_t(text[2])) << 8) | uint32_t(uint8_t(text[3]));
}

constexpr OSStatus noErr = 0;

// Handles of the output queue (AudioQueue.h) and of the stream parser (AudioFileStream.h).
typedef struct OpaqueAudioQueue* AudioQueueRef;
struct AudioQueueBuffer;
typedef AudioQueueBuffer* AudioQueueBufferRef;
typedef struct OpaqueAudioFileStreamID* AudioFileStreamID;

// Stream format record, 40 bytes as on the platform.
struct AudioStreamBasicDescription {
  double mSampleRate;
  AudioFormatID mFormatID;
  AudioFormatFlags mFormatFlags;
  uint32_t mBytesPerPacket;
  uint32_t mFramesPerPacket;
  uint32_t mBytesPerFrame;
  uint32_t mChannelsPerFrame;
  uint32_t mBitsPerChannel;
  uint32_t mReserved;
};
static_assert(sizeof(AudioStreamBasicDescription) == 40);

struct AudioStreamPacketDescription {
  int64_t mStartOffset;
  uint32_t mVariableFramesInPacket;
  uint32_t mDataByteSize;
};
static_assert(sizeof(AudioStreamPacketDescription) == 16);

// Only mSampleTime is ever filled in; the flags say which fields are valid.
struct AudioTimeStamp {
  double mSampleTime;
  uint64_t mHostTime;
  double mRateScalar;
  uint64_t mWordClockTime;
  uint32_t mFlags;
  uint32_t mReserved;
};
constexpr uint32_t kAudioTimeStampSampleTimeValid = 1u << 0;

// Formats.
constexpr AudioFormatID kAudioFormatLinearPCM = FourCC("lpcm");
constexpr AudioFormatID kAudioFormatMPEGLayer3 = FourCC(".mp3");
constexpr AudioFormatFlags kAudioFormatFlagIsFloat = 1u << 0;
constexpr AudioFormatFlags kAudioFormatFlagIsBigEndian = 1u << 1;
constexpr AudioFormatFlags kAudioFormatFlagIsSignedInteger = 1u << 2;
constexpr AudioFormatFlags kAudioFormatFlagIsPacked = 1u << 3;
constexpr AudioFileTypeID kAudioFileMP3Type = FourCC("MPG3");

// Parser properties.
constexpr AudioFileStreamPropertyID kAudioFileStreamProperty_ReadyToProducePackets = FourCC("redy");
constexpr AudioFileStreamPropertyID kAudioFileStreamProperty_DataFormat = FourCC("dfmt");

// Output queue properties and parameters.
constexpr AudioQueuePropertyID kAudioQueueProperty_IsRunning = FourCC("aqrn");
constexpr AudioQueueParameterID kAudioQueueParam_Volume = 1;

// Refusals of a queue start, decided by the shared audio session and the application.
constexpr OSStatus kAudioSessionErr_Interrupted = OSStatus(FourCC("!int"));
constexpr OSStatus kAudioSessionErr_InBackground = OSStatus(FourCC("!pla"));

// Status codes of the output queue.
constexpr OSStatus kAudioQueueErr_InvalidQueue = OSStatus(FourCC("qinv"));      // unknown or disposed handle
constexpr OSStatus kAudioQueueErr_InvalidBuffer = OSStatus(FourCC("qbuf"));     // buffer not of this queue
constexpr OSStatus kAudioQueueErr_BufferInQueue = OSStatus(FourCC("qenq"));     // buffer already enqueued
constexpr OSStatus kAudioQueueErr_BufferEmpty = OSStatus(FourCC("qemp"));       // nothing to play in the buffer
constexpr OSStatus kAudioQueueErr_InvalidParameter = OSStatus(FourCC("qprm"));  // bad argument
constexpr OSStatus kAudioQueueErr_InvalidProperty = OSStatus(FourCC("qprp"));   // unknown property or size
constexpr OSStatus kAudioQueueErr_UnsupportedFormat = OSStatus(FourCC("qfmt"));
constexpr OSStatus kAudioQueueErr_NotStarted = OSStatus(FourCC("qnst"));        // time asked before any start
constexpr OSStatus kAudioQueueErr_OutOfMemory = OSStatus(FourCC("qmem"));
constexpr OSStatus kAudioQueueErr_DeviceFailed = OSStatus(FourCC("qdev"));      // the sound output failed
constexpr OSStatus kAudioQueueErr_DecoderFailed = OSStatus(FourCC("qdec"));

// Status codes of the stream parser.
constexpr OSStatus kAudioFileStreamError_UnsupportedFileType = OSStatus(FourCC("typ?"));
constexpr OSStatus kAudioFileStreamError_UnsupportedProperty = OSStatus(FourCC("pty?"));
constexpr OSStatus kAudioFileStreamError_BadPropertySize = OSStatus(FourCC("!siz"));
constexpr OSStatus kAudioFileStreamError_NotOptimized = OSStatus(FourCC("optm"));
constexpr OSStatus kAudioFileStreamError_InvalidFile = OSStatus(FourCC("dta?"));    // no MP3 found in the bytes
constexpr OSStatus kAudioFileStreamError_InvalidStream = OSStatus(FourCC("stm?"));  // unknown or closed handle
constexpr OSStatus kAudioFileStreamError_DataUnavailable = OSStatus(FourCC("more"));   // format not found yet
// A null argument, or feeding a parser from inside one of its own callbacks.
constexpr OSStatus kAudioFileStreamError_IllegalOperation = OSStatus(FourCC("nope"));
