// akudoa serve over HTTP: bad control requests, the client limit, stalled
// clients and SIGTERM while streaming.
#include <gtest/gtest.h>
#include <httplib.h>

#include <arpa/inet.h>
#include <csignal>
#include <string>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

#include "cli_support.h"

using namespace clitest;

namespace {

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
    sockaddr_in a{AF_INET, htons(static_cast<uint16_t>(port)), {htonl(INADDR_LOOPBACK)}, {}};
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
    ASSERT_EQ(simulate(dir, "[scene]\nduration = 0.1\n[source a]\npixel = 4 3\nsignal = noise\n").status, 0);
    const std::string log = joinPath(dir, "serve.out");
    const pid_t pid = fork();
    if (pid == 0) {
        const std::string cmd = "cd '" + dir + "' && exec '" AKUDOA_TOOL_BINARY
                                "' serve --config cam.ini --in rec.wav --loop --listen 127.0.0.1:0 > serve.out 2>&1";
        execl("/bin/sh", "sh", "-c", cmd.c_str(), static_cast<char*>(nullptr));
        _exit(127);
    }
    int port = 0;
    for (int i = 0; i < 3000 && !port; ++i, usleep(100000))
        if (size_t at = slurp(log).find("http://127.0.0.1:"); at != std::string::npos)
            port = std::stoi(slurp(log).substr(at + 17));
    ASSERT_GT(port, 0) << slurp(log);
    httplib::Client http("127.0.0.1", port);
    auto controls = [&] { std::string s = http.Get("/state")->body; return s.substr(0, s.find("\"frames\"")); };
    auto state = [&](auto ok) { // the state once ok(state) holds, or after a minute
        std::string s;
        for (int i = 0; i < 600 && !ok(s = http.Get("/state")->body); ++i)
            usleep(100000);
        return s;
    };
    const std::string before = controls();
    const std::string bad[] = {"", "range", "range=", "=5", "range=5=5", "foo=1", "range=abc", "range=0.5",
                               "range=121", "range=10&range=20", "program=5", "program=3.5", "focus=yes",
                               "distance=0", "distance=nan", "low=-1", "high=48001", "low=40000", "row=2",
                               "row=16&col=0", "row=0&col=12", "pause=1", "range=20&bogus=1",
                               std::string(2000, 'a'), "../etc/passwd=1"};
    for (const std::string& body : bad) {
        auto r = http.Post("/control", body, "text/plain");
        EXPECT_TRUE(r && r->status == 400 && !r->body.empty()) << body; // a 400 with its reason
    }
    EXPECT_EQ(controls(), before);
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
    const std::string s = state([](const std::string& s) { return field(s, "dropped") > 0; });
    const long frames = field(s, "frames");
    EXPECT_GT(field(s, "dropped"), 0);
    EXPECT_GT(field(state([&](const std::string& s) { return field(s, "frames") > frames; }), "frames"), frames);

    // Clients that go away leave nothing behind; SIGTERM while one streams.
    for (int fd : fds)
        close(fd);
    EXPECT_EQ(field(state([](const std::string& s) { return field(s, "clients") == 0; }), "clients"), 0);
    const int last = stalledClient(port, status);
    EXPECT_EQ(status, "200");
    kill(pid, SIGTERM);
    int st = 0;
    ASSERT_EQ(waitpid(pid, &st, 0), pid);
    EXPECT_TRUE(WIFEXITED(st) && WEXITSTATUS(st) == 0) << slurp(log);
    EXPECT_NE(slurp(log).find("at most 8 at once, 1 refused"), std::string::npos) << slurp(log);
    close(last);
}
