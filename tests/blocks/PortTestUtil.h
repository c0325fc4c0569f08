#pragma once
// Helpers for block tests that talk to a running system through ports: record what a
// scheme output port sends, write into a scheme input port, and reload a saved scheme.
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "blocks/BlockTestUtil.h"
#include "vandrel/core/Ports.h"
#include "vandrel/runtime/SimulationSystem.h"
#include "vandrel/scheme/SimulationSystemScheme.h"

namespace blocktest {

// An input port that keeps every value it receives, in order.
template <class T>
class PortRecorder {
public:
    PortRecorder() : port_(this, &PortRecorder::onValue_) {}
    PortRecorder(const PortRecorder&) = delete;
    PortRecorder& operator=(const PortRecorder&) = delete;

    // Connects to scheme output port `name` of `system`.
    void listen(wSimulationSystem& system, std::string_view name) { system.getOutputPort(name)->connect(&port_); }
    // Values received since the last take(), which forgets them.
    std::vector<T> take() {
        std::vector<T> v;
        v.swap(values_);
        return v;
    }

private:
    void onValue_(const T& v) { values_.push_back(v); }
    std::vector<T> values_;
    wInputPortImpl<T, PortRecorder> port_;
};

// Writes v into scheme input port `name` through the typed path, so callbacks run.
template <class T>
void sendToInput(wSimulationSystem& system, std::string_view name, const T& v) {
    auto* in = dynamic_cast<wInputPort<T>*>(system.getInputPort(name));
    ASSERT_NE(in, nullptr) << "scheme input port " << name << " carries another type";
    in->setValue(v);
}

// A scheme saved from an editing load of `text` and loaded again for editing. `resaved`
// receives the text that saving the reloaded scheme gives, `saved` the first save.
inline std::unique_ptr<wSimulationSystemScheme> saveAndReload(const std::string& text, std::string* saved,
                                                              std::string* resaved) {
    const auto dir = freshDir();
    const std::string src = writeFile(dir / "src.lua", text);
    const std::string first = (dir / "first.lua").string();
    const std::string second = (dir / "second.lua").string();
    zo::vector<int> discarded;
    {
        wSimulationSystemScheme s;
        s.loadForEdit(src, discarded);
        s.save(first);
    }
    auto reloaded = std::make_unique<wSimulationSystemScheme>();
    reloaded->loadForEdit(first, discarded);
    reloaded->save(second);
    EXPECT_TRUE(discarded.empty());
    *saved = readFile(first);
    *resaved = readFile(second);
    return reloaded;
}

}  // namespace blocktest
