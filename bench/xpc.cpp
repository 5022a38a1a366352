// bench_xpc [ROUNDS] [MESSAGES]    one-way messages and round trips of a small dictionary between two processes
// By the channel, by sd-bus on a private connection, and over a bare socketpair with the channel's encoding, in turn. Prints one line of
// JSON: microseconds of one message, medians over the rounds.
#include <sys/prctl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "bench/Exchange.h"
#include "bench/Measure.h"
#include "bench/TemporaryFolder.h"

namespace kestrine::bench {

bool becomesSecondProcess() {
  const pid_t child = fork();
  if (child < 0) fail("fork");
  if (child == 0) prctl(PR_SET_PDEATHSIG, SIGKILL);
  return child == 0;
}

}  // namespace kestrine::bench

namespace {

using namespace kestrine::bench;

struct Contender {
  const char* name;
  std::unique_ptr<Exchange> exchange;
  long sent = 0;
  std::vector<double> oneWay{};
  std::vector<double> roundTrip{};
};

/// A message that is lost, or taken twice, is no result.
void expectTaken(Contender& contender, long taken) {
  if (taken == contender.sent) return;
  std::fprintf(stderr, "%s: %ld of %ld were taken\n", contender.name, taken, contender.sent);
  std::exit(1);
}

void measure(Contender& contender, long messages) {
  Exchange& exchange = *contender.exchange;
  double start = now();
  for (long number = 1; number < messages; ++number) exchange.send(number);
  const long taken = exchange.ask(messages);
  contender.oneWay.push_back((now() - start) / static_cast<double>(messages) * 1e6);
  contender.sent += messages;
  expectTaken(contender, taken);

  const long trips = std::max(messages / 5, 1L);
  start = now();
  const long after = exchange.askMany(trips);
  contender.roundTrip.push_back((now() - start) / static_cast<double>(trips) * 1e6);
  contender.sent += trips;
  expectTaken(contender, after);
}

double median(std::vector<double> values) {
  std::nth_element(values.begin(), values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2), values.end());
  return values[values.size() / 2];
}

}  // namespace

int main(int count, char** arguments) {
  const int rounds = count > 1 ? std::atoi(arguments[1]) : 9;
  const long messages = count > 2 ? std::atol(arguments[2]) : 50'000;
  const TemporaryFolder folder;
  std::array<Contender, 3> contenders{
      {{"socket", makeSocketExchange()}, {"sdbus", makeBusExchange()}, {"channel", makeChannelExchange(folder.path())}}};
  for (int round = 0; round < rounds; ++round) {
    for (Contender& contender : contenders) measure(contender, messages);
  }
  const char* separator = "{";
  for (const Contender& contender : contenders) {
    std::printf("%s\"%s\": {\"oneWay\": %.3f, \"roundTrip\": %.3f}", separator, contender.name, median(contender.oneWay),
                median(contender.roundTrip));
    separator = ", ";
  }
  std::puts("}");
}
