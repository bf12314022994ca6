// jobs.cpp - a job dispatcher: jobs wait in a queue until a worker is free, and none gets lost when
// a worker is killed or stopped.
//
//   jobs serve PORT          the dispatcher; port 0 lets the system choose; it prints the port
//   jobs work PORT NUMBER    a worker: squares numbers, slowly, and reports its progress
//   jobs submit PORT COUNT   a supervisor: submits jobs and prints what happens to them
//   jobs demo                all of them; one worker is killed, one is stopped and continued
//
// The messages:
//
//   supervisor to dispatcher   a request "7", a job: its reply "49" comes when a worker has done it
//   dispatcher to worker       the request "7"
//   worker to dispatcher       one-way: "ready" after each login; "progress 7 40%"
//   dispatcher to supervisor   one-way: "progress 7 40% tcp://worker:1"; "again 7 tcp://worker:1"
//
// A job is the supervisor's own request, which the dispatcher keeps until a worker has done it. If
// a worker was stopped, its job may be done twice, by it and by another one; the supervisor still
// gets one reply.

#include <tolvane.hpp>

#include <deque>
#include <functional>
#include <list>
#include <map>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace std::chrono_literals;
using text = std::string;

static const char *const host = "127.0.0.1";
// The heartbeat interval; a peer that leaves two unanswered is lost.
static const tolvane::options settings{100ms};

// ---- dispatcher

struct dispatcher {
    tolvane::loop loop;
    tolvane::server server{loop, settings};
    std::deque<tolvane::request> jobs;
    std::deque<tolvane::peer> idle; // workers, some of them lost since they were ready

    int run(uint16_t port, int output)
    {
        server.on_request([this](tolvane::request message) {
            const text what(message.payload());
            if (what == "ready")
                idle.push_back(message.from());
            else if (what.rfind("progress", 0) == 0)
                (void)message.from().data<tolvane::peer>()->tell(what + " " + message.from().url());
            else
                jobs.push_back(std::move(message));
            hand_out();
        });
        const tolvane::status listening = server.listen(host, port);
        dprintf(output, "%d\n", listening ? server.port() : -1);
        return listening && loop.run() ? EXIT_SUCCESS : EXIT_FAILURE;
    }

    void hand_out()
    {
        while (!jobs.empty() && !idle.empty()) {
            tolvane::peer worker = idle.front();
            idle.pop_front();
            if (!worker)
                continue;
            tolvane::request job = std::move(jobs.front());
            jobs.pop_front();
            const text what(job.payload());
            *worker.data<tolvane::peer>() = job.from(); // who gets the progress reports
            // The timeout is for a worker that answers heartbeats and never finishes.
            worker.request(what, 10s, [=, job = std::move(job)](tolvane::response result) mutable {
                finish(worker, std::move(job), result);
            });
        }
    }

    void finish(tolvane::peer worker, tolvane::request job, const tolvane::response &result)
    {
        tolvane::peer supervisor = job.from();
        if (result) {
            (void)job.reply(result.payload()); // fails if the supervisor has left
        } else if (supervisor) {
            (void)supervisor.tell("again " + text(job.payload()) + " " + worker.url());
            jobs.push_front(std::move(job));
        }
        if (worker)
            idle.push_back(worker);
        hand_out();
    }
};

// ---- worker

static int work(uint16_t port, uint16_t number)
{
    std::list<std::pair<tolvane::request, int>> tasks; // jobs, and how many percent are done
    tolvane::loop loop;
    tolvane::client client(loop, {host, port}, {"worker", number}, settings);
    client.on_connected([&] { (void)client.tell("ready"); });
    client.on_request([&](tolvane::request job) { tasks.emplace_back(std::move(job), 0); });
    const auto step = tolvane::timer::every(20ms, [&] {
        for (auto &[job, percent] : tasks) {
            const text what(job.payload());
            percent += 20;
            (void)client.tell("progress " + what + " " + std::to_string(percent) + "%");
            if (percent == 100) // fails after a lost link: another worker does the job then
                (void)job.reply(std::to_string(atoll(what.c_str()) * atoll(what.c_str())));
        }
        tasks.remove_if([](const auto &each) { return each.second == 100; });
    });
    return client.connect() && loop.run() ? EXIT_SUCCESS : EXIT_FAILURE;
}

// ---- supervisor

// Submits count jobs. After each finished job it submits another one, as long as watch(report)
// returns true.
static int supervise(uint16_t port, int count, const std::function<bool(const text &)> &watch)
{
    int submitted = 0, done = 0, wrong = 0;
    tolvane::loop loop;
    tolvane::client client(loop, {host, port}, {"supervisor", 1}, settings);
    const auto hear = [&](const text &report) {
        puts(report.c_str());
        return watch(report);
    };
    const std::function<void(long long)> submit = [&](long long number) {
        client.request(std::to_string(number), 60s, [&, number](tolvane::response result) {
            if (result.outcome() == tolvane::outcome::lost)
                return submit(number); // again, to be sent when the dispatcher is back
            wrong += result.payload() != std::to_string(number * number);
            if (hear("done " + std::to_string(number) + " " + text(result.payload())))
                submit(++submitted);
            if (++done == submitted)
                loop.stop();
        });
    };
    client.on_request([&](tolvane::request report) { hear(text(report.payload())); });
    while (submitted < count)
        submit(++submitted);
    const bool ran = client.connect() && loop.run();
    printf("%d of %d jobs done, %d of them wrong\n", done, submitted, wrong);
    return ran && wrong == 0 ? EXIT_SUCCESS : EXIT_FAILURE;
}

// ---- demonstration

static std::map<text, pid_t> children;

template <class Role> static void spawn(const text &name, Role role)
{
    const pid_t child = children[name] = fork();
    if (child < 0)
        exit(EXIT_FAILURE); // kill(-1) would reach every process
    if (child > 0)
        return;
    prctl(PR_SET_PDEATHSIG, SIGKILL); // it does not outlive the demonstration
    _exit(role());
}

// Kills one worker and stops another as soon as they work. Continues the stopped one when its job
// has been queued again, and ends after it has reported progress again.
static int demo()
{
    alarm(60);
    int ends[2], port = -1;
    if (pipe(ends) != 0)
        return EXIT_FAILURE;
    spawn("dispatcher", [&] { return dispatcher().run(0, ends[1]); });
    if (fscanf(fdopen(ends[0], "r"), "%d", &port) != 1)
        return EXIT_FAILURE;
    for (const uint16_t number : {1, 2, 3})
        spawn("tcp://worker:" + std::to_string(number), [&] { return work(port, number); });

    // For the second worker: the report to wait for, and the signal to send when it comes (0:
    // none).
    std::deque<std::pair<text, int>> steps{
        {"progress", SIGSTOP}, {"again", SIGCONT}, {"progress", 0}};
    const int result = supervise(static_cast<uint16_t>(port), 8, [&](const text &report) {
        const text worker = report.substr(report.rfind(' ') + 1);
        if (worker == "tcp://worker:1")
            kill(children[worker], SIGKILL);
        if (worker == "tcp://worker:2" && !steps.empty() && report.rfind(steps[0].first, 0) == 0) {
            kill(children[worker], steps[0].second);
            steps.pop_front();
        }
        return !steps.empty();
    });
    for (const auto &[name, child] : children)
        kill(child, SIGKILL);
    return result;
}

int main(int argc, char **argv)
{
    setvbuf(stdout, nullptr, _IOLBF, 0);
    const text role = argc > 1 ? argv[1] : "";
    const auto number = [&](int i) { return static_cast<uint16_t>(atoi(argv[i])); };
    if (role == "serve" && argc == 3)
        return dispatcher().run(number(2), STDOUT_FILENO);
    if (role == "work" && argc == 4)
        return work(number(2), number(3));
    if (role == "submit" && argc == 4)
        return supervise(number(2), number(3), [](const text &) { return false; });
    if (role == "demo" && argc == 2)
        return demo();
    fprintf(stderr, "arguments: serve PORT, work PORT NUMBER, submit PORT COUNT, or demo\n");
    return EXIT_FAILURE;
}
