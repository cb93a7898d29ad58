// The platform's system log (syslog on Linux), apart from the diagnostic lines on standard error.
#pragma once

// printf-style; writes one message.
void NSLog(const char* format, ...) __attribute__((format(printf, 1, 2)));
