// The allocation-free formatting of the crash hook.
#include "basic/crash.h"

namespace qcr {

FixedText& FixedText::add(const char* text) {
  while (*text != '\0' && length_ + 1 < size_) buf_[length_++] = *text++;
  terminate();
  return *this;
}

FixedText& FixedText::addDecimal(long long value) {
  char digits[24];
  int n = 0;
  // Negate digit by digit so the most negative value needs no special case.
  const bool negative = value < 0;
  do {
    const int digit = static_cast<int>(value % 10);
    digits[n++] = static_cast<char>('0' + (negative ? -digit : digit));
    value /= 10;
  } while (value != 0);
  if (negative) digits[n++] = '-';
  char text[24];
  for (int i = 0; i < n; ++i) text[i] = digits[n - 1 - i];
  text[n] = '\0';
  return add(text);
}

FixedText& FixedText::addHex(uint64_t value, int minDigits) {
  char digits[17];
  int n = 0;
  do {
    digits[n++] = "0123456789ABCDEF"[value & 0xF];
    value >>= 4;
  } while (value != 0);
  while (n < minDigits && n < 16) digits[n++] = '0';
  char text[17];
  for (int i = 0; i < n; ++i) text[i] = digits[n - 1 - i];
  text[n] = '\0';
  return add(text);
}

size_t formatExceptionLine(char* buf, size_t size, ExceptionCode exception, uintptr_t address,
                           const char* tag, int pid, int tid) {
  FixedText line(buf, size);
  line.add("[E] Exception 0x").addHex(exception.code, 8).add(" (").add(exception.name);
  line.add(") at Address 0x").addHex(address, 2 * sizeof(void*)).add(", [").add(tag);
  line.add("] pid:tid ").addDecimal(pid).add(":").addDecimal(tid).add(".\n");
  return line.length();
}

}  // namespace qcr
