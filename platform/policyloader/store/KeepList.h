// KeepList: what is published to readers without a lock, and so must stay for as long as its list. Push from any
// thread, and after a fork in the child: there is no lock that could be held. Failure: std::bad_alloc.
#pragma once

#include <atomic>
#include <memory>
#include <utility>

namespace policyloader {

template <class T>
class KeepList {
public:
    KeepList() = default;
    ~KeepList() {
        for (Node* node = m_head.load(); node;) delete std::exchange(node, node->next);
    }
    KeepList(KeepList const&) = delete;
    KeepList& operator=(KeepList const&) = delete;

    T const* push(std::unique_ptr<T const> kept) {
        auto* const node = new Node{std::move(kept), m_head.load()};
        while (!m_head.compare_exchange_weak(node->next, node)) {
        }
        return node->kept.get();
    }

private:
    struct Node {
        std::unique_ptr<T const> kept;
        Node* next;
    };
    std::atomic<Node*> m_head{nullptr};
};

}  // namespace policyloader
