// Host records for the value-import tests: plain subclasses of the host interfaces that serve
// scripted data and note every call, with the thread it came on and its place in an order shared
// with the test server.
#pragma once

#include <gtest/gtest.h>

#include "TableRepositoryImport.h"
#include "support/RecordingServer.h"

#include <cpprest/http_client.h>

#include <atomic>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace valuestest {

inline CString Wide(const std::string& utf8) { return CString(utf8.c_str()); }

// One order over events seen on different threads: host calls and request arrivals.
class EventClock {
public:
    int Tick() { return m_next++; }

private:
    std::atomic<int> m_next{0};
};

struct HostCall {
    std::string what;
    std::thread::id thread;
    int tick;
};

// Every host call of a test. The records may be called on a worker thread while the test waits.
class HostLog {
public:
    explicit HostLog(EventClock& clock) : m_clock(clock) {}

    // Notes the call, then throws std::runtime_error("boom") if it is the call to fail.
    void Record(const std::string& what) {
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            m_calls.push_back({what, std::this_thread::get_id(), m_clock.Tick()});
        }
        if (what == failOn) {
            throw std::runtime_error("boom");
        }
    }
    std::vector<HostCall> Calls() const {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_calls;
    }
    std::vector<std::string> Names() const {
        std::vector<std::string> names;
        for (const HostCall& call : Calls()) {
            names.push_back(call.what);
        }
        return names;
    }

    std::string failOn;

private:
    EventClock& m_clock;
    mutable std::mutex m_mutex;
    std::vector<HostCall> m_calls;
};

// Distinct values by index; an index without a text makes CopyValue write nothing and GetValue
// return the empty text.
class FakeDistinctValues : public CDistinctValues {
public:
    FakeDistinctValues(HostLog& log, const std::map<int, std::string>& texts) : m_log(log) {
        for (const auto& [index, text] : texts) {
            m_texts[index] = std::wstring(Wide(text).GetString());
        }
    }

    void Prepare() override { m_log.Record("Prepare"); }
    LPCWSTR GetValue(int index) override {
        m_log.Record("GetValue(" + std::to_string(index) + ")");
        return m_texts[index].c_str();
    }
    void CopyValue(int index, LPWSTR buffer) override {
        clearedBeforeCopy = clearedBeforeCopy && buffer[0] == L'\0';
        m_log.Record("CopyValue(" + std::to_string(index) + ")");
        const auto found = m_texts.find(index);
        if (found != m_texts.end()) {
            std::copy(found->second.c_str(), found->second.c_str() + found->second.size() + 1,
                      buffer);
        }
    }

    bool clearedBeforeCopy = true;

private:
    HostLog& m_log;
    std::map<int, std::wstring> m_texts;
};

class FakeValueIds : public CValueIds {
public:
    FakeValueIds(HostLog& log, std::string attribute, std::function<int(int)> idOfRow)
        : m_log(log), m_attribute(std::move(attribute)), m_idOfRow(std::move(idOfRow)) {}

    int GetValueId(int row) override {
        m_log.Record("GetValueId(" + m_attribute + "," + std::to_string(row) + ")");
        return m_idOfRow(row);
    }

private:
    HostLog& m_log;
    std::string m_attribute;
    std::function<int(int)> m_idOfRow;
};

class FakeAttribute : public CRepoAttribute {
public:
    FakeAttribute(HostLog& log, std::string name, std::function<int(int)> idOfRow)
        : m_log(log), m_name(std::move(name)), m_ids(log, m_name, std::move(idOfRow)) {}

    CString GetName() override {
        m_log.Record("GetName(" + m_name + ")");
        return Wide(m_name);
    }
    int GetType() override {
        ADD_FAILURE() << "the library called the host's own GetType";
        return 0;
    }
    CDistinctValues* GetDistinctValues() override {
        ADD_FAILURE() << "the library called the host's own GetDistinctValues";
        return nullptr;
    }
    CValueIds* GetValueIds() override {
        m_log.Record("GetValueIds(" + m_name + ")");
        return &m_ids;
    }

private:
    HostLog& m_log;
    std::string m_name;
    FakeValueIds m_ids;
};

// The host's attribute list with records that it owns for the test's duration.
class Attributes {
public:
    Attributes(HostLog& log, const std::vector<std::string>& names,
               const std::function<int(int, int)>& idOf = [](int k, int row) {
                   return 100 * k + row;
               }) {
        for (std::size_t k = 0; k < names.size(); ++k) {
            const int column = static_cast<int>(k);
            m_records.push_back(std::make_unique<FakeAttribute>(
                log, names[k], [idOf, column](int row) { return idOf(column, row); }));
            m_list.AddTail(m_records.back().get());
        }
    }
    Attributes(const Attributes&) = delete;
    Attributes& operator=(const Attributes&) = delete;

    CList<CRepoAttribute*>* List() { return &m_list; }

private:
    std::vector<std::unique_ptr<FakeAttribute>> m_records;
    CList<CRepoAttribute*> m_list;
};

// The most specific standard type that catches what an operation threw, with its message, so a
// check names both.
struct Caught {
    std::string type;
    std::string message;
};

template <class Operation> Caught CatchFrom(Operation operation) {
    try {
        operation();
    } catch (const std::runtime_error& e) {
        return {"std::runtime_error", e.what()};
    } catch (const std::logic_error& e) {
        return {"std::logic_error", e.what()};
    } catch (const web::http::http_exception& e) {
        return {"web::http::http_exception", e.what()};
    } catch (const pplx::task_canceled& e) {
        return {"pplx::task_canceled", e.what()};
    } catch (const web::uri_exception& e) {
        return {"web::uri_exception", e.what()};
    } catch (const web::json::json_exception& e) {
        return {"web::json::json_exception", e.what()};
    } catch (const std::bad_alloc& e) {
        return {"std::bad_alloc", e.what()};
    } catch (const std::exception& e) {
        return {"std::exception", e.what()};
    }
    return {"nothing", ""};
}

// What cpprestsdk itself reports when a POST to url cannot be delivered.
inline std::string TransportFailureMessage(const std::string& url) {
    try {
        web::http::client::http_client client{web::uri(utility::conversions::to_string_t(url))};
        client.request(web::http::methods::POST).get();
    } catch (const web::http::http_exception& e) {
        return e.what();
    }
    return "<delivered>";
}

// An address where nothing listens: a server's port, closed again.
inline std::string UnreachableServiceUrl() {
    testsupport::RecordingServer gone;
    return gone.BaseUrl();
}

} // namespace valuestest
