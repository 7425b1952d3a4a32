// The command line of the examples that are programs: SOCKET, a path on the drive, then NAME=NUMBER in any order.
#pragma once

#include <vrkfs/client.h>

#include <cstdint>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>

namespace examples {

class Arguments {
  public:
    // The names with what each is when it is not given. Throws std::runtime_error on anything else.
    Arguments(int count, char** words, std::map<std::string, std::uint64_t> numbers) : numbers_(std::move(numbers)) {
        if (count < 3) {
            throw std::runtime_error("wants SOCKET P:/RZV/VOLUME/FOLDER/CLIP " + Names());
        }
        socket_ = words[1];
        for (const char* at = words[2]; *at != '\0'; ++at) {
            path_ += *at == '/' ? u'\\' : static_cast<char16_t>(static_cast<unsigned char>(*at));
        }
        for (int index = 3; index < count; ++index) {
            const std::string word = words[index];
            const auto number = numbers_.find(word.substr(0, word.find('=')));
            const std::size_t digits = word.find('=') + 1;
            if (number == numbers_.end() || digits == 0 || digits == word.size() ||
                word.find_first_not_of("0123456789", digits) != word.npos) {
                throw std::runtime_error("'" + word + "' is none of " + Names());
            }
            number->second = std::stoull(word.substr(digits));
        }
    }

    [[nodiscard]] const char* Socket() const { return socket_; }
    [[nodiscard]] const std::u16string& Path() const { return path_; }
    [[nodiscard]] std::uint64_t Number(const std::string& name) const { return numbers_.at(name); }
    [[nodiscard]] std::uint32_t Small(const std::string& name, std::uint32_t most) const {
        if (Number(name) > most) {
            throw std::runtime_error(name + " is at most " + std::to_string(most));
        }
        return static_cast<std::uint32_t>(Number(name));
    }

  private:
    [[nodiscard]] std::string Names() const {
        std::string names;
        for (const auto& [name, number] : numbers_) {
            names += (names.empty() ? "" : " ") + name + "=" + std::to_string(number);
        }
        return names;
    }

    const char* socket_ = nullptr;
    std::u16string path_;
    std::map<std::string, std::uint64_t> numbers_;
};

struct ClientDestroyer {
    void operator()(VrkFsClient* client) const { VrkFsClientDestroy(client); }
};
using ConnectedClient = std::unique_ptr<VrkFsClient, ClientDestroyer>;

}  // namespace examples
