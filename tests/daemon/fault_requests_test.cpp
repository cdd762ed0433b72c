// Malformed, oversized and cut-off requests against a running daemon: it must
// keep answering and hold no more threads or descriptors afterwards.
#include <arpa/inet.h>
#include <dirent.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "json/json.h"
#include "vxtest.h"

namespace {

int daemon_port() { return 20000 + getpid() % 20000; }

int count_entries(const std::string& dir) {
  DIR* d = opendir(dir.c_str());
  if (!d) return -1;
  int n = 0;
  while (dirent* e = readdir(d))
    if (e->d_name[0] != '.') n++;
  closedir(d);
  return n;
}

enum class Ending { kNewline, kHalfClose, kAbort };

struct Line {
  std::string bytes;
  Ending ending;
};

int connect_daemon() {
  int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return -1;
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_port = htons(static_cast<uint16_t>(daemon_port()));
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  timeval timeout = {20, 0};
  setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);
  setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &timeout, sizeof timeout);
  // Every connection ends with a reset, so ten thousand of them leave
  // nothing behind in TIME_WAIT on a shared machine.
  linger hard = {1, 0};
  setsockopt(fd, SOL_SOCKET, SO_LINGER, &hard, sizeof hard);
  if (connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) {
    close(fd);
    return -1;
  }
  return fd;
}

// Sends a line and ends it as asked; false when the connection is already
// gone. kAbort resets the connection without reading, as a crashed client would.
bool send_line(int fd, const Line& line) {
  size_t sent = 0;
  while (sent < line.bytes.size()) {
    ssize_t n = send(fd, line.bytes.data() + sent, line.bytes.size() - sent, MSG_NOSIGNAL);
    if (n <= 0) break;  // the daemon may stop reading an oversized line
    sent += static_cast<size_t>(n);
  }
  if (line.ending == Ending::kNewline) send(fd, "\n", 1, MSG_NOSIGNAL);
  if (line.ending == Ending::kAbort) return false;
  shutdown(fd, SHUT_WR);
  return true;
}

std::string read_answer(int fd) {
  std::string answer;
  char buffer[4096];
  for (;;) {
    ssize_t n = recv(fd, buffer, sizeof buffer, 0);
    if (n <= 0) break;
    answer.append(buffer, static_cast<size_t>(n));
  }
  return answer;
}

// A batch of connections, all sent before any answer is read: the daemon
// serves them back to back instead of waiting for this process each time.
std::vector<std::string> send_batch(const std::vector<Line>& lines) {
  std::vector<int> fds;
  for (const Line& line : lines) {
    int fd = connect_daemon();
    if (fd >= 0 && !send_line(fd, line)) {
      close(fd);
      fd = -1;
    }
    fds.push_back(fd);
  }
  std::vector<std::string> answers;
  for (int fd : fds) {
    answers.push_back(fd >= 0 ? read_answer(fd) : "");
    if (fd >= 0) close(fd);
  }
  return answers;
}

std::string request(const std::string& bytes, Ending ending = Ending::kNewline) {
  return send_batch({{bytes, ending}})[0];
}

// Random bytes without a newline (the framing adds its own).
std::string random_line(std::mt19937& rng, size_t max_length) {
  std::string line(rng() % (max_length + 1), '\0');
  for (char& c : line) {
    c = static_cast<char>(rng() & 0xFF);
    if (c == '\n') c = ' ';
  }
  return line;
}

// Structured requests that are wrong in one way each, plus random cuts.
std::string broken_structured(std::mt19937& rng) {
  static const char* const kCases[] = {
      R"({"protocol":"vxcli-ipc","version":2,"format":"text","argv":["daemon","status"]})",
      R"({"protocol":"other","version":1,"format":"text","argv":["daemon","status"]})",
      R"({"protocol":"vxcli-ipc","version":"1","format":"text","argv":["daemon","status"]})",
      R"({"protocol":"vxcli-ipc","version":1,"format":"xml","argv":["daemon","status"]})",
      R"({"protocol":"vxcli-ipc","version":1,"format":"text","argv":"daemon status"})",
      R"({"protocol":"vxcli-ipc","version":1,"format":"text","argv":[1,2,3]})",
      R"({"protocol":"vxcli-ipc","version":1,"format":"json","argv":[["daemon"],{"a":"status"}]})",
      R"({"protocol":"vxcli-ipc","version":1,"format":"json","argv":[],"project":7})",
      R"({"protocol":"vxcli-ipc","version":1,"format":"json","argv":["channel","open","--channel"]})",
      R"({"protocol":"vxcli-ipc","version":1,"format":"json","argv":["message","send","--data=zz"]})",
      R"({"protocol":"vxcli-ipc","version":1,"format":"json","argv":["\u0000","\ud800"]})",
      R"({"protocol":"vxcli-ipc","version":1e999,"format":"text","argv":["daemon","status"]})",
      R"({"protocol":"vxcli-ipc")",
      R"({{{{{{{{{{{{{{{{{{{{{{{{{{{{{{{{{{{{{{{{)",
      R"([])",
      R"({})",
  };
  std::string text = kCases[rng() % (sizeof kCases / sizeof kCases[0])];
  switch (rng() % 4) {
    case 0:
      text.resize(rng() % (text.size() + 1));
      break;
    case 1: {  // many arguments, far over the limit
      std::string argv;
      for (int i = 0; i < 300; i++) argv += i ? ",\"x\"" : "\"x\"";
      text = R"({"protocol":"vxcli-ipc","version":1,"format":"text","argv":[)" + argv + "]}";
      break;
    }
    case 2:  // one argument longer than the whole argument budget
      text = R"({"protocol":"vxcli-ipc","version":1,"format":"text","argv":[")" +
             std::string(70000 + rng() % 1000, 'a') + "\"]}";
      break;
    default:
      if (!text.empty()) text[rng() % text.size()] = static_cast<char>(rng() & 0x7F);
      break;
  }
  for (char& c : text)
    if (c == '\n') c = ' ';
  return text;
}

struct DaemonFixture : testing::Test {
  vxtest::Sandbox box;
  DaemonFixture() { box.env()["VXCLI_DAEMON_PORT"] = std::to_string(daemon_port()); }
  ~DaemonFixture() override { box.vxcli({"daemon", "stop"}, 30); }
};

int json_pid(const std::string& doc) {
  vxcli_json_token t[64];
  if (vxcli_json_parse(doc.c_str(), t, 64) < 1) return -1;
  int at = vxcli_json_object_get(doc.c_str(), t, 0, "pid");
  int64_t v = -1;
  if (at < 0 || vxcli_json_integer(doc.c_str(), &t[at], &v) != 0) return -1;
  return static_cast<int>(v);
}

using DaemonFaultRequests = DaemonFixture;

TEST_F(DaemonFaultRequests, SurvivesTenThousandBadLinesWithoutLeaks) {
  ASSERT_EQ(box.vxcli({"daemon", "start"}).rc, 0);
  vxtest::RunResult status = box.vxcli({"daemon", "status", "--format=json"});
  ASSERT_EQ(status.rc, 0) << status.err;
  const int pid = json_pid(status.out);
  ASSERT_GT(pid, 0) << status.out;
  const std::string proc = "/proc/" + std::to_string(pid);
  // The device library sets up its connection on first use and keeps it;
  // count from there.
  ASSERT_EQ(request("channel open --channel=0").rfind("OK:", 0), 0u);
  ASSERT_EQ(request("channel close --channel=0").rfind("OK:", 0), 0u);
  ASSERT_EQ(request("daemon status").rfind("OK: daemon running", 0), 0u);
  const int fds_before = count_entries(proc + "/fd");
  const int tasks_before = count_entries(proc + "/task");
  ASSERT_GT(fds_before, 0);

  std::mt19937 rng(20261121);
  std::vector<Line> batch;
  for (int i = 0; i < 10000; i++) {
    Line line{"", Ending::kNewline};
    switch (i % 10) {
      case 0:
      case 1:
      case 2:
      case 3:
        line.bytes = random_line(rng, 200);
        break;
      case 4:  // no newline: the request ends with the client's half-close
        line = {random_line(rng, 64), Ending::kHalfClose};
        break;
      case 5:
      case 6:
        line.bytes = broken_structured(rng);
        break;
      case 7:  // a client that resets the connection mid-request
        line = {random_line(rng, 32), Ending::kAbort};
        break;
      case 8:  // words the processor knows, with arguments that name nothing
        line.bytes = (rng() % 2 ? "channel open --channel=/" : "message send --id=") +
                     random_line(rng, 24);
        break;
      default:  // an empty request
        line.ending = rng() % 2 ? Ending::kNewline : Ending::kHalfClose;
        break;
    }
    batch.push_back(std::move(line));
    if (batch.size() == 16) {
      send_batch(batch);
      batch.clear();
    }
    if (i % 1000 == 999) {
      std::string answer = request("daemon status");
      ASSERT_EQ(answer.rfind("OK: daemon running", 0), 0u) << "after " << i + 1 << ": " << answer;
    }
  }
  // Lines at and beyond the 10 MiB request buffer, with and without their newline.
  for (size_t size : {size_t{10} << 20, (size_t{10} << 20) + 4096}) {
    std::string huge(size, 'x');
    request(huge, Ending::kNewline);
    request(huge, Ending::kHalfClose);
    ASSERT_EQ(request("daemon status").rfind("OK: daemon running", 0), 0u);
  }

  EXPECT_EQ(box.vxcli({"daemon", "status"}).rc, 0);
  EXPECT_EQ(count_entries(proc + "/fd"), fds_before);
  EXPECT_EQ(count_entries(proc + "/task"), tasks_before);
  EXPECT_EQ(request("channel status"), "ERROR: no channels open\n");
}

}  // namespace
