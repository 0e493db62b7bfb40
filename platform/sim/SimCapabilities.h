#pragma once

#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "platform/Preferences.h"

namespace quorvix::sim {

// Device capabilities as a test sets them; records the questions in order.
class SimCapabilities : public DeviceCapabilities {
public:
    void setAnswer(std::string_view question, bool answer) { answers_.insert_or_assign(std::string(question), answer); }
    const std::vector<std::string>& questions() const { return questions_; }

    bool booleanAnswer(std::string_view question) override {
        questions_.emplace_back(question);
        const auto found = answers_.find(question);
        return found != answers_.end() && found->second;
    }

private:
    std::map<std::string, bool, std::less<>> answers_;
    std::vector<std::string> questions_;
};

}  // namespace quorvix::sim
