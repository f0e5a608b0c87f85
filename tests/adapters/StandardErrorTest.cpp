#include "adapters/system/StandardError.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <string>

#include "tests/rig/StandardErrorText.h"
#include "tests/rig/TerminalRig.h"

namespace kestrune::testing {
namespace {

TEST(ReportOnce, EachMessageIsPrintedOnce) {
  const StandardErrorText errors;
  for (const char* const message : {"a", "b", "a"}) reportOnce(message);
  EXPECT_EQ(errors.text(), "KestruneMenuClient: a\nKestruneMenuClient: b\n");
}

TEST(ReportOnce, DoesNotBlockWhileNobodyReads) {
  const StandardErrorText restored;
  const PipeEnds pipe;
  fcntl(pipe.writing.get(), F_SETFL, O_NONBLOCK);
  char piece[4096] = {};
  while (write(pipe.writing.get(), piece, sizeof piece) > 0) {
  }
  fcntl(pipe.writing.get(), F_SETFL, 0);
  dup2(pipe.writing.get(), STDERR_FILENO);
  reportOnce("held up");
  // The pipe was full, so the call above has printed nothing. The next call prints the message.
  fcntl(pipe.reading.get(), F_SETFL, O_NONBLOCK);
  while (read(pipe.reading.get(), piece, sizeof piece) > 0) {
  }
  reportOnce("held up");
  const ssize_t count = read(pipe.reading.get(), piece, sizeof piece);
  ASSERT_GT(count, 0);
  EXPECT_EQ(std::string(piece, static_cast<std::size_t>(count)), "KestruneMenuClient: held up\n");
}

}  // namespace
}  // namespace kestrune::testing
