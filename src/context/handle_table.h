#pragma once

#include <algorithm>
#include <array>
#include <cstdint>
#include <memory>
#include <new>
#include <utility>

namespace tez {

/// Issues handles 1, 2, 3, ... and keeps a value for each. A hash table with 128 buckets for good:
/// a process rarely has more than a handful of handles, and chains simply lengthen. Each bucket is
/// the sentinel of a circular doubly linked chain. Takes no lock; its registry does.
template <class Value>
class HandleTable {
  public:
    /// @param lastIssued  the handle before the first one to issue.
    explicit HandleTable(std::uint64_t lastIssued = 0) noexcept : counter_(lastIssued) {
        for (Link& bucket : buckets_) {
            bucket.next = bucket.previous = &bucket;
        }
    }
    HandleTable(const HandleTable&) = delete;
    HandleTable& operator=(const HandleTable&) = delete;
    ~HandleTable() {
        for (Link& bucket : buckets_) {
            while (bucket.next != &bucket) {
                remove(static_cast<Node*>(bucket.next));
            }
        }
    }

    /// Stores a value under the next handle that is not in use and returns that handle, which is
    /// never 0. Throws std::bad_alloc when memory is exhausted; nothing is stored then.
    std::uint64_t add(Value value) {
        // Above every handle that there ever was none can be in use: no chain is searched before
        // the counter begins anew.
        do {
            ++counter_;
        } while (counter_ == 0 || (counter_ <= highest_ && find(counter_) != nullptr));
        insert(counter_, std::move(value));
        return counter_;
    }

    /// Stores a value under a given handle, over the one that may be there.
    void put(std::uint64_t handle, Value value) {
        if (Value* const present = find(handle)) {
            *present = std::move(value);
        } else {
            insert(handle, std::move(value));
        }
    }

    /// The value of a handle, null when it is unknown. Valid until the handle is taken.
    Value* find(std::uint64_t handle) noexcept {
        Node* const node = findNode(handle);
        return node == nullptr ? nullptr : &node->value;
    }

    /// Removes a handle. False when it is unknown; otherwise value receives what it held.
    bool take(std::uint64_t handle, Value& value) noexcept {
        Node* const node = findNode(handle);
        if (node == nullptr) {
            return false;
        }
        value = std::move(node->value);
        remove(node);
        return true;
    }

    /// Calls visit(handle, value) for every handle, in no order that callers may rely on.
    template <class Visit>
    void forEach(Visit visit) {
        for (Link& bucket : buckets_) {
            for (Link* link = bucket.next; link != &bucket; link = link->next) {
                Node* const node = static_cast<Node*>(link);
                visit(node->handle, node->value);
            }
        }
    }

    std::size_t size() const noexcept { return count_; }

  private:
    struct Link {
        Link* next;
        Link* previous;
    };
    struct Node : Link {
        std::uint64_t handle;
        Value value;
    };

    Link& bucketOf(std::uint64_t handle) noexcept {
        return buckets_[static_cast<std::uint32_t>(handle >> 1) % buckets_.size()];
    }

    Node* findNode(std::uint64_t handle) noexcept {
        Link& bucket = bucketOf(handle);
        for (Link* link = bucket.next; link != &bucket; link = link->next) {
            Node* const node = static_cast<Node*>(link);
            if (node->handle == handle) {
                return node;
            }
        }
        return nullptr;
    }

    void insert(std::uint64_t handle, Value value) {
        Link& bucket = bucketOf(handle);
        Node* const node = new Node{{bucket.next, &bucket}, handle, std::move(value)};
        node->next->previous = node;
        bucket.next = node;
        ++count_;
        highest_ = std::max(highest_, handle);
    }

    void remove(Node* node) noexcept {
        node->previous->next = node->next;
        node->next->previous = node->previous;
        delete node;
        --count_;
    }

    std::array<Link, 128> buckets_;
    std::size_t count_ = 0;
    std::uint64_t counter_;
    std::uint64_t highest_ = 0;  // handle ever stored
};

}  // namespace tez
