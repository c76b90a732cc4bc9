// The front LEDs are wired to data lines of the board's parallel port as well as to the FPGA.
// "/dev/pp_driver" gives access to the port's data byte (write only) and status byte; these
// free functions wrap it and keep a shadow of the last data byte, since it cannot be read back.
// Data bit 3 is the client LED, bit 4 the ready LED.
#pragma once

#include <cstdint>

class CCardProvider;

constexpr unsigned long kPpWriteRequest = 0x40043602;       // data byte passed by value
constexpr unsigned long kPpReadStatusRequest = 0x80043603;  // pointer to a byte

extern int pp_driver_fd;   // 0 while the device is open, -1 otherwise
extern uint8_t pp_shadow;  // last data byte written

// Opens "/dev/pp_driver" through the card seam (the process-wide provider unless one is given).
int init_pp_driver(CCardProvider* provider = nullptr);
int close_pp_driver();
void pp_write(uint8_t b);
void pp_write_bit(uint8_t bit, uint8_t value);
uint8_t pp_read_status();
