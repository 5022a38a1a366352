// bench_rest [ROUNDS]     time of one LogError, one after another: through RestInterface, and by libcurl's easy interface
// Bare libcurl ("libcurl") makes a new handle and connection for each request, sends the same header fields and body, and reads the answer
// in memory; it blocks its caller. "sameWork" does what every request of the product has to do besides: it asks for the network first,
// writes the same lines to the log, waits for the end on another thread while the main thread serves its run loop, and finishes on the main
// queue. The server is a second process; all run in a network namespace of their own, where the server's compile-time host is. Prints one
// line of JSON, microseconds; the log goes to standard error, which is best sent to /dev/null.
#include <arpa/inet.h>
#include <curl/curl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sched.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>
#include <string_view>
#include <vector>

#include "Services/QueryParser.h"
#include "Services/Reachability/Reachability.h"
#include "Services/RestBaseURL.h"
#include "Services/RestInterface.h"
#include "bench/Measure.h"
#include "platform/concurrency/loop/RunLoop.h"
#include "platform/concurrency/queue/SerialQueue.h"
#include "platform/foundation/formats/JSON.h"
#include "platform/foundation/log/Log.h"

namespace {

using namespace kestrine;
using namespace kestrine::bench;

constexpr int kRequests = 300;
constexpr const char* kPath = "MAC/ErrorLog.svc/LogError";

void enterNamespace() {
  if (unshare(CLONE_NEWNET) != 0) {
    const std::string user = std::to_string(getuid());
    if (unshare(CLONE_NEWUSER | CLONE_NEWNET) != 0) fail("unshare");
    std::ofstream("/proc/self/uid_map") << "0 " << user << " 1";
  }
  const int done = std::system(
      "ip link set lo up && ip link add v0 type veth peer name v1 && ip link set v0 up && ip link set v1 up && "
      "ip address add 192.0.2.2/24 dev v0 && ip route add default via 192.0.2.1");
  if (done != 0) fail("ip");
}

int portOfServer() {
  const std::string& url = restBaseURL();
  const std::size_t end = url.find('/', 7);
  const std::size_t colon = url.rfind(':', end);
  return colon > 6 ? std::stoi(url.substr(colon + 1)) : 80;
}

/// Answers each connection's one request and closes it.
[[noreturn]] void serve(int listener) {
  constexpr std::string_view kAnswer =
      "HTTP/1.1 200 OK\r\nContent-Type: application/json\r\nContent-Length: 20\r\nConnection: close\r\n\r\n{\"ReturnStatus\":\"1\"}";
  std::array<char, 4096> bytes{};
  for (;;) {
    const int client = accept(listener, nullptr, nullptr);
    if (client < 0) continue;
    std::string request;
    std::size_t wanted = std::string::npos;
    while (request.size() < wanted) {
      const ssize_t count = read(client, bytes.data(), bytes.size());
      if (count <= 0) break;
      request.append(bytes.data(), static_cast<std::size_t>(count));
      const std::size_t head = request.find("\r\n\r\n");
      const std::size_t length = request.find("Content-Length: ");
      if (head != std::string::npos && length < head) wanted = head + 4 + std::stoul(request.substr(length + 16));
    }
    static_cast<void>(write(client, kAnswer.data(), kAnswer.size()));
    close(client);
  }
}

void startServer() {
  const int listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  const int on = 1;
  setsockopt(listener, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<std::uint16_t>(portOfServer()));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (bind(listener, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 || listen(listener, 64) != 0) fail("listen");
  const pid_t child = fork();
  if (child < 0) fail("fork");
  if (child == 0) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    serve(listener);
  }
  close(listener);
}

LogErrorQuery query() {
  LogErrorQuery query;
  query.errorClass = "FileWatcher";
  query.errorMethod = "Run Method";
  query.errorMessage = "Exception has occured";
  return query;
}

double byInterface() {
  const double start = now();
  for (int i = 0; i < kRequests; ++i) {
    bool ended = false;
    RestInterface::asyncLogError_withCompiletionHandler(query(), [&ended](const RestAnswer<LogErrorResponseData>& answer, RestTaskStatus) {
      if (!answer.result) fail("a request through RestInterface");
      ended = true;
      platform::RunLoop::main()->stop();
    });
    while (!ended) platform::RunLoop::main()->run();
  }
  return (now() - start) / kRequests;
}

std::size_t keep(char* bytes, std::size_t size, std::size_t count, void* text) {
  static_cast<std::string*>(text)->append(bytes, size * count);
  return size * count;
}

/// Posts `body` and returns the answer.
std::string post(const std::string& url, const std::string& body) {
  std::string answer;
  CURL* const easy = curl_easy_init();
  curl_slist* fields = nullptr;
  for (const char* field : {"Accept:", "Expect:", "Content-Type: application/json"}) fields = curl_slist_append(fields, field);
  curl_easy_setopt(easy, CURLOPT_URL, url.c_str());
  curl_easy_setopt(easy, CURLOPT_NOSIGNAL, 1L);
  curl_easy_setopt(easy, CURLOPT_PROXY, "");
  curl_easy_setopt(easy, CURLOPT_ACCEPT_ENCODING, "gzip, deflate");
  curl_easy_setopt(easy, CURLOPT_HTTPHEADER, fields);
  curl_easy_setopt(easy, CURLOPT_POSTFIELDSIZE, static_cast<long>(body.size()));
  curl_easy_setopt(easy, CURLOPT_POSTFIELDS, body.c_str());
  curl_easy_setopt(easy, CURLOPT_WRITEFUNCTION, keep);
  curl_easy_setopt(easy, CURLOPT_WRITEDATA, &answer);
  if (curl_easy_perform(easy) != CURLE_OK) fail("a request by libcurl");
  curl_easy_cleanup(easy);
  curl_slist_free_all(fields);
  return answer;
}

double byLibcurl() {
  const std::string url = restAbsoluteURL(kPath)->absoluteString();
  const double start = now();
  for (int i = 0; i < kRequests; ++i) {
    const std::string body = platform::prettyJSONText(QueryParser::parseLogErrorQuery(query()));
    if (platform::readJSON(post(url, body)).count() != 1) fail("the answer to libcurl");
  }
  return (now() - start) / kRequests;
}

/// One thread that posts, as the product has one that drives its sockets.
double byLibcurlWithSameWork(platform::SerialQueue& network) {
  const std::string url = restAbsoluteURL(kPath)->absoluteString();
  const double start = now();
  for (int i = 0; i < kRequests; ++i) {
    const platform::Object params = QueryParser::parseLogErrorQuery(query());
    platform::NSLog(params.description());
    if (!Reachability::isReachable()) fail("no network");
    const std::string body = platform::prettyJSONText(params);
    platform::NSLog("Json String " + body);
    bool ended = false;
    network.async([&] {
      platform::mainQueue()->async([&ended, answer = post(url, body)] {
        const platform::Object parsed = platform::readJSON(answer);
        platform::NSLog("response " + parsed.description());
        if (parsed.count() != 1) fail("the answer to libcurl");
        ended = true;
        platform::RunLoop::main()->stop();
      });
    });
    while (!ended) platform::RunLoop::main()->run();
  }
  return (now() - start) / kRequests;
}

double median(std::vector<double> values) {
  std::nth_element(values.begin(), values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2), values.end());
  return values[values.size() / 2];
}

}  // namespace

int main(int count, char** arguments) {
  const int rounds = count > 1 ? std::atoi(arguments[1]) : 9;
  enterNamespace();
  startServer();
  curl_global_init(CURL_GLOBAL_ALL);
  // Without it the main loop would have nothing to wait for and spin, on a processor that the network thread and the server need.
  const auto anchor = platform::RunLoopSource::create([] {});
  platform::RunLoop::main()->add(anchor);
  const auto network = platform::SerialQueue::create("network");
  std::vector<double> interface;
  std::vector<double> libcurl;
  std::vector<double> sameWork;
  for (int round = 0; round < rounds; ++round) {
    libcurl.push_back(byLibcurl());
    sameWork.push_back(byLibcurlWithSameWork(*network));
    interface.push_back(byInterface());
  }
  std::printf("{\"libcurl\": %.1f, \"sameWork\": %.1f, \"interface\": %.1f}\n", median(libcurl) * 1e6, median(sameWork) * 1e6,
              median(interface) * 1e6);
}
