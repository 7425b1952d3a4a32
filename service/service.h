// The user-mode service: presents every clip of a station as folders of pictures, and does what the command port asks
// for. Everything it does goes through the client library, so it runs beside the daemon that has the station, or on a
// machine in the same program.
#pragma once

#include <atomic>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "service/card_service.h"

namespace service {

struct ServiceOptions {
    // A new client of the station, or null with the reason. Called for each card, and again when the station has gone.
    std::function<client::ClientPointer(std::string& problem)> connect;
    Log log;           // from several threads
    bool stay = true;  // wait for a station that has gone to come back; else that is the end
};

class Service {
  public:
    explicit Service(ServiceOptions options);
    ~Service();  // Run has returned
    Service(const Service&) = delete;
    Service& operator=(const Service&) = delete;

    // Serves until Stop. False with `problem` filled when it cannot begin (no station, no card, another service), or
    // when the station has gone and it shall not stay. Only once.
    bool Run(std::string& problem);
    // Takes leave of the driver and lets Run return, when the request in hand is answered. From any thread.
    void Stop();

  private:
    class CardThread;
    enum class Ending { kStopped, kLost, kTaken };

    bool OpenCards(std::string& problem);
    bool Announce(std::string& problem);
    Ending Serve(std::string& problem);
    void EndCards();
    bool Pause(std::chrono::milliseconds time);
    bool AwaitPosted();
    bool IsTaken();

    ServiceOptions options_;
    std::vector<std::unique_ptr<CardThread>> cards_;
    bool announced_ = false;  // to the driver
    std::mutex lock_;         // guards the following
    std::condition_variable changed_;
    bool stopping_ = false;    // Stop
    bool leaving_ = false;     // the card threads are to end
    std::size_t running_ = 0;  // card threads
    bool taken_ = false;       // one of them found another service
};

}  // namespace service
