#pragma once

#include "host/portable/Object.h"

#include <cstddef>

// Opaque iteration handle of framework lists.
struct __POSITION {};
typedef __POSITION* POSITION;

// Doubly linked list walked with POSITION handles, as the framework's CList.
template <class TYPE, class ARG_TYPE = const TYPE&> class CList : public CObject {
    struct Node : __POSITION {
        Node* next;
        Node* prev;
        TYPE data;
    };

public:
    explicit CList(int /*blockSize*/ = 10) {}
    ~CList() override { RemoveAll(); }

    int GetCount() const { return static_cast<int>(m_count); }
    int GetSize() const { return GetCount(); }
    BOOL IsEmpty() const { return m_count == 0; }

    POSITION GetHeadPosition() const { return m_head; }
    POSITION GetTailPosition() const { return m_tail; }
    TYPE& GetHead() { return m_head->data; }
    const TYPE& GetHead() const { return m_head->data; }
    TYPE& GetTail() { return m_tail->data; }
    const TYPE& GetTail() const { return m_tail->data; }

    // Returns the element at pos and moves pos to the next one (nullptr after the tail).
    TYPE& GetNext(POSITION& pos) {
        Node* node = static_cast<Node*>(pos);
        pos = node->next;
        return node->data;
    }
    const TYPE& GetNext(POSITION& pos) const {
        const Node* node = static_cast<const Node*>(pos);
        pos = node->next;
        return node->data;
    }
    TYPE& GetPrev(POSITION& pos) {
        Node* node = static_cast<Node*>(pos);
        pos = node->prev;
        return node->data;
    }
    TYPE& GetAt(POSITION pos) { return static_cast<Node*>(pos)->data; }
    const TYPE& GetAt(POSITION pos) const { return static_cast<const Node*>(pos)->data; }

    POSITION AddTail(ARG_TYPE element) {
        Node* node = new Node{{}, nullptr, m_tail, element};
        (m_tail ? m_tail->next : m_head) = node;
        m_tail = node;
        ++m_count;
        return node;
    }
    POSITION AddHead(ARG_TYPE element) {
        Node* node = new Node{{}, m_head, nullptr, element};
        (m_head ? m_head->prev : m_tail) = node;
        m_head = node;
        ++m_count;
        return node;
    }
    TYPE RemoveHead() {
        Node* node = m_head;
        TYPE value = node->data;
        m_head = node->next;
        (m_head ? m_head->prev : m_tail) = nullptr;
        delete node;
        --m_count;
        return value;
    }
    void RemoveAll() {
        while (m_head != nullptr) {
            Node* next = m_head->next;
            delete m_head;
            m_head = next;
        }
        m_tail = nullptr;
        m_count = 0;
    }

private:
    Node* m_head = nullptr;
    Node* m_tail = nullptr;
    std::size_t m_count = 0;
};
