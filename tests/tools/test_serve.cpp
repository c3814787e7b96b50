// akudoa serve over HTTP: bad control requests, the client limit, stalled
// clients and SIGTERM while streaming.
#include <gtest/gtest.h>
#include <httplib.h>

#include <arpa/inet.h>
#include <csignal>
#include <fcntl.h>
#include <string>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

#include "cli_support.h"

using namespace clitest;

namespace {

std::string slurp(const std::string& path)
{
    std::stringstream ss;
    ss << std::ifstream(path).rdbuf();
    return ss.str();
}

long field(const std::string& json, const std::string& key)
{
    return std::stol(json.substr(json.find("\"" + key + "\":") + key.size() + 3));
}

// A client that asks for the frame stream, reads the status line, then
// never reads again (a small receive buffer fills at once).
int stalledClient(int port, std::string& status)
{
    int fd = socket(AF_INET, SOCK_STREAM, 0), small = 2048;
    setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &small, sizeof small);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(static_cast<uint16_t>(port));
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    EXPECT_EQ(connect(fd, reinterpret_cast<sockaddr*>(&a), sizeof a), 0);
    const std::string req = "GET /frames HTTP/1.1\r\nHost: x\r\n\r\n";
    EXPECT_EQ(write(fd, req.data(), req.size()), static_cast<ssize_t>(req.size()));
    char buf[12] = {};
    EXPECT_EQ(recv(fd, buf, sizeof buf, MSG_WAITALL), 12);
    status = std::string(buf + 9, 3);
    return fd;
}

} // namespace

TEST(ToolServe, ControlsClientsAndStop)
{
    const std::string dir = dirFor("serve");
    writeText(joinPath(dir, "cam.ini"), smallCamera());
    writeText(joinPath(dir, "scene.ini"), "[scene]\nduration = 0.1\n[source a]\npixel = 4 3\nsignal = noise\n");
    ASSERT_EQ(akudoa(dir, "simulate --config cam.ini --scene scene.ini --out rec.wav").status, 0);
    const std::string log = joinPath(dir, "serve.out");
    const pid_t pid = fork();
    if (pid == 0) {
        const int fd = open(log.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        dup2(fd, 1);
        dup2(fd, 2);
        (void)!chdir(dir.c_str());
        execl(AKUDOA_TOOL_BINARY, "akudoa", "serve", "--config", "cam.ini", "--in", "rec.wav", "--loop", "--listen",
              "127.0.0.1:0", static_cast<char*>(nullptr));
        _exit(127);
    }
    int port = 0;
    for (int i = 0; i < 3000 && !port; ++i, usleep(100000))
        if (size_t at = slurp(log).find("http://127.0.0.1:"); at != std::string::npos)
            port = std::stoi(slurp(log).substr(at + 17));
    ASSERT_GT(port, 0) << slurp(log);
    httplib::Client http("127.0.0.1", port);
    auto state = [&] { std::string s = http.Get("/state")->body; return s.substr(0, s.find("\"frames\"")); };
    const std::string before = state();
    const std::string bad[] = {"", "range", "range=", "=5", "range=5=5", "foo=1", "range=abc", "range=0.5",
                               "range=121", "range=10&range=20", "program=5", "program=3.5", "focus=yes",
                               "distance=0", "distance=nan", "low=-1", "high=48001", "low=40000", "row=2",
                               "row=16&col=0", "row=0&col=12", "pause=1", "range=20&bogus=1",
                               std::string(2000, 'a'), "../etc/passwd=1"};
    for (const std::string& body : bad) {
        auto r = http.Post("/control", body, "text/plain");
        ASSERT_TRUE(r);
        EXPECT_EQ(r->status, 400) << body;
        EXPECT_FALSE(r->body.empty()) << body;
    }
    EXPECT_EQ(state(), before);
    EXPECT_EQ(http.Post("/control", "range=20&row=4&col=3", "text/plain")->status, 200);
    EXPECT_EQ(field(http.Get("/state")->body, "range"), 20);
    EXPECT_EQ(http.Get("/cam.ini")->status, 404);

    std::vector<int> fds;
    std::string status;
    for (int i = 0; i < 9; ++i) {
        fds.push_back(stalledClient(port, status));
        EXPECT_EQ(status, i < 8 ? "200" : "503") << i;
    }
    // Frames go on while eight clients read nothing: theirs are dropped.
    long dropped = 0, frames = 0;
    for (int i = 0; i < 600 && !dropped; ++i, usleep(100000)) {
        const std::string s = http.Get("/state")->body;
        dropped = field(s, "dropped");
        frames = field(s, "frames");
    }
    EXPECT_GT(dropped, 0);
    for (int i = 0; i < 600 && field(http.Get("/state")->body, "frames") <= frames; ++i)
        usleep(100000);
    EXPECT_GT(field(http.Get("/state")->body, "frames"), frames);

    // Clients that go away leave nothing behind; SIGTERM while one streams.
    for (int fd : fds)
        close(fd);
    for (int i = 0; i < 600 && field(http.Get("/state")->body, "clients") > 0; ++i)
        usleep(100000);
    EXPECT_EQ(field(http.Get("/state")->body, "clients"), 0);
    const int last = stalledClient(port, status);
    EXPECT_EQ(status, "200");
    kill(pid, SIGTERM);
    int st = 0;
    ASSERT_EQ(waitpid(pid, &st, 0), pid);
    EXPECT_TRUE(WIFEXITED(st) && WEXITSTATUS(st) == 0) << slurp(log);
    EXPECT_NE(slurp(log).find("at most 8 at once, 1 refused"), std::string::npos) << slurp(log);
    close(last);
}
