#include "service/service.h"

#include <algorithm>
#include <random>
#include <thread>
#include <utility>

namespace service {
namespace {

constexpr std::uint32_t kMaxCards = 10;
constexpr std::chrono::milliseconds kSettle{100};  // in which a posted request is refused if it is
constexpr std::chrono::milliseconds kRetry{100};   // between two attempts to post one
constexpr std::chrono::milliseconds kYield{300};   // in which a service that found the place taken finds it free
constexpr int kRetries = 30;                       // a service that has just died is gone from the driver by then
constexpr std::chrono::milliseconds kNudge{10};
constexpr std::chrono::seconds kPatience{VRKFS_SERVICE_TIMEOUT_SECONDS - 10};  // less than the driver's
constexpr std::chrono::milliseconds kFirstWait{100};  // for a station to come back, doubled up to the last
constexpr std::chrono::milliseconds kLastWait{2000};

VrkFsStatus RegisterAll(Card& card) {
    const auto rows = FileTypes();
    return VrkFsClientRegisterFileTypes(card.Client(), card.Control(), rows.data(),
                                        static_cast<std::uint32_t>(rows.size()));
}

// The rows are there already: they are the same for all cards.
VrkFsStatus RegisterNone(Card& card) {
    return VrkFsClientRegisterFileTypes(card.Client(), card.Control(), nullptr, 0);
}

}  // namespace

// One card's requests, answered one after the other.
class Service::CardThread {
  public:
    CardThread(Service& service, std::unique_ptr<Card> card) : service_(service), card_(std::move(card)) {}
    ~CardThread() { Join(); }

    Card& GetCard() { return *card_; }
    void Start() {
        {
            const std::lock_guard hold(service_.lock_);
            ++service_.running_;
        }
        thread_ = std::thread([this] { Run(); });
    }
    void Join() {
        if (thread_.joinable()) {
            thread_.join();
        }
    }
    bool IsWaiting() const { return waiting_; }
    bool HasYielded() const { return yielded_; }
    // Ends a wait for a request. What the thread is doing for one is left alone.
    void Nudge() {
        if (waiting_) {
            VrkFsClientCancel(card_->Client(), card_->Control());
        }
    }

    // Whoever still waits for an answer of a service that has died would do so for a minute, and everybody else behind
    // it: an answer to no request ends that. While this one has its own request posted, none of its own can be meant.
    void EndOldExchange() {
        VrkFsServiceResponse none{};
        none.Type = VRKFS_SERVICE_NOTHING;
        none.Result = 1;
        if (waiting_) {
            (void)VrkFsClientSendServiceResponse(card_->Client(), card_->Control(), &none, sizeof(none), nullptr, 0);
        }
    }

  private:
    bool IsStopping() {
        const std::lock_guard hold(service_.lock_);
        return service_.stopping_ || service_.leaving_;
    }

    void Run() {
        Begin();
        bool taken = false;
        while (ServeOne(taken)) {
        }
        answers_.reset();  // closes the clips before the card goes
        yielded_ = true;   // nothing to wait for any more
        const std::lock_guard hold(service_.lock_);
        --service_.running_;
        service_.taken_ = service_.taken_ || taken;
        service_.changed_.notify_all();
    }

    // Handles begin anywhere, so that those of a service before this one mean nothing here.
    void Begin() { answers_ = std::make_unique<CardService>(*card_, service_.options_.log, std::random_device()()); }

    bool ServeOne(bool& taken) {
        VrkFsServiceRequest request;
        const VrkFsStatus status = Fetch(request);
        if (status == VRKFS_STATUS_DEVICE_BUSY) {
            taken = ++refused_ > kRetries;
            return !taken && service_.Pause(kRetry);
        }
        refused_ = 0;
        if (status == VRKFS_STATUS_CANCELLED && !yielded_.exchange(true)) {
            return service_.Pause(kYield);
        }
        if (!VRKFS_SUCCEEDED(status)) {
            return false;
        }
        VrkFsStatus sent = VRKFS_STATUS_SUCCESS;
        auto answered = std::chrono::steady_clock::now();
        answers_->Answer(request, [&](const VrkFsServiceResponse& response, std::size_t size, std::size_t dataBytes) {
            sent = VrkFsClientSendServiceResponse(card_->Client(), card_->Control(), &response, size, &card_->Memory(),
                                                  dataBytes);
            answered = std::chrono::steady_clock::now();
            return VRKFS_SUCCEEDED(sent);
        });
        // Work that goes on behind the last answer keeps the next request waiting. When that has been given up, and the
        // service with it, nothing tells.
        if (sent == VRKFS_STATUS_CANCELLED || std::chrono::steady_clock::now() - answered > kPatience) {
            return StartAgain();
        }
        return sent != VRKFS_STATUS_PORT_DISCONNECTED;
    }

    VrkFsStatus Fetch(VrkFsServiceRequest& request) {
        waiting_ = true;
        const VrkFsStatus status = IsStopping()
                                       ? VRKFS_STATUS_CANCELLED
                                       : VrkFsClientFetchServiceRequest(card_->Client(), card_->Control(), &request);
        waiting_ = false;
        return status;
    }

    // The driver has given up on the service, or may have. It does not use the old handles any more.
    bool StartAgain() {
        if (IsStopping()) {
            return false;
        }
        service_.options_.log("card " + std::to_string(card_->Index()) + ": the driver was kept waiting too long");
        Begin();
        return VRKFS_SUCCEEDED(RegisterNone(*card_));
    }

    Service& service_;
    std::unique_ptr<Card> card_;
    std::unique_ptr<CardService> answers_;
    std::atomic<bool> waiting_{false};
    std::atomic<bool> yielded_{false};  // once, before anything is announced
    int refused_ = 0;
    std::thread thread_;
};

Service::Service(ServiceOptions options) : options_(std::move(options)) {}

Service::~Service() = default;

bool Service::Run(std::string& problem) {
    bool found = false;
    for (auto wait = kFirstWait; Pause(std::chrono::milliseconds(0));) {
        Ending ending = Ending::kLost;
        if (OpenCards(problem)) {
            found = true;
            if (Announce(problem)) {
                wait = kFirstWait;
                options_.log("serving " + std::to_string(cards_.size()) + (cards_.size() == 1 ? " card" : " cards"));
                ending = Serve(problem);
            } else if (taken_) {
                ending = Ending::kTaken;
            } else if (options_.stay) {
                options_.log(problem + "; trying again");
            }
        }
        EndCards();
        if (ending == Ending::kStopped) {
            break;
        }
        if (ending == Ending::kTaken || !found || !options_.stay) {
            return false;
        }
        (void)Pause(wait);
        wait = std::min(2 * wait, kLastWait);
    }
    return true;
}

void Service::Stop() {
    const std::lock_guard hold(lock_);
    stopping_ = true;
    changed_.notify_all();
}

// False when it is time to stop.
bool Service::Pause(std::chrono::milliseconds time) {
    std::unique_lock hold(lock_);
    return !changed_.wait_for(hold, time, [this] { return stopping_ || leaving_; });
}

bool Service::OpenCards(std::string& problem) {
    client::ClientPointer client;
    for (std::uint32_t index = 0; index < kMaxCards; ++index) {
        if (!client) {
            client = options_.connect(problem);
        }
        if (!client) {
            return false;
        }
        if (auto card = Card::Open(client, index, problem)) {
            cards_.push_back(std::make_unique<CardThread>(*this, std::move(card)));
        }
    }
    return !cards_.empty();
}

// Until every card has a request posted. False when one has found another service, or it is time to stop.
bool Service::AwaitPosted() {
    while (Pause(kSettle)) {
        const std::lock_guard hold(lock_);
        if (running_ < cards_.size()) {
            return false;
        }
        if (std::ranges::all_of(cards_, [](const auto& card) { return card->IsWaiting(); })) {
            return true;
        }
    }
    return false;
}

// Requests are posted before anything is announced: they find out whether another service is there. One that is busy
// has none posted itself, so the place is left free once more, for longer than it waits. One that has died is given
// time to go.
bool Service::IsTaken() {
    if (AwaitPosted()) {
        for (const auto& card : cards_) {
            while (!card->HasYielded() && Pause(kNudge)) {
                card->Nudge();
            }
        }
        (void)AwaitPosted();
    }
    const std::lock_guard hold(lock_);
    return taken_;
}

bool Service::Announce(std::string& problem) {
    taken_ = false;
    for (const auto& card : cards_) {
        card->Start();
    }
    if (IsTaken()) {
        problem = "another service is there";
        return false;
    }
    announced_ = true;
    for (const auto& card : cards_) {  // what a service that has died has left: its rows, and who waits for it
        card->EndOldExchange();
        (void)VrkFsClientUnregisterFileTypes(card->GetCard().Client(), card->GetCard().Control());
    }
    VrkFsStatus status = VRKFS_STATUS_SUCCESS;
    for (std::size_t index = 0; index < cards_.size() && VRKFS_SUCCEEDED(status); ++index) {
        status = index == 0 ? RegisterAll(cards_[index]->GetCard()) : RegisterNone(cards_[index]->GetCard());
    }
    if (!VRKFS_SUCCEEDED(status)) {
        problem = Failed("cannot announce the file types", status);
    }
    return VRKFS_SUCCEEDED(status);
}

Service::Ending Service::Serve(std::string& problem) {
    std::unique_lock hold(lock_);
    changed_.wait(hold, [this] { return stopping_ || running_ < cards_.size(); });
    if (stopping_) {
        return Ending::kStopped;
    }
    if (taken_) {
        announced_ = false;  // what the driver has now is the other one's
        problem = "another service has taken over";
        return Ending::kTaken;
    }
    problem = "the station has gone";
    if (options_.stay) {
        options_.log(problem + "; waiting for it to come back");
    }
    return Ending::kLost;
}

// The driver is told first, so that nobody begins to wait for this service any more.
void Service::EndCards() {
    for (const auto& card : cards_) {
        if (announced_) {
            (void)VrkFsClientUnregisterFileTypes(card->GetCard().Client(), card->GetCard().Control());
        }
    }
    announced_ = false;
    std::unique_lock hold(lock_);
    leaving_ = true;
    changed_.notify_all();
    while (!changed_.wait_for(hold, kNudge, [this] { return running_ == 0; })) {
        hold.unlock();
        for (const auto& card : cards_) {
            card->Nudge();
        }
        hold.lock();
    }
    leaving_ = false;
    hold.unlock();
    cards_.clear();
}

}  // namespace service
