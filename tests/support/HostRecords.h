// The host's side of a test, as plain subclasses of the host interfaces: attribute definition
// records (HostDefinitions) and the readers of a table's data (HostTable: one CRepoAttribute per
// column with its CDistinctValues and CValueIds over vectors). The readers note every call the
// library makes, with its thread, in a HostLog, which can make one named call throw.
#pragma once

#include "TableRepositoryImport.h"

#include <memory>
#include <mutex>
#include <set>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace testsupport {

inline CString Wide(const std::string& utf8) { return CString(utf8.c_str()); }

// The proxy configuration a host registers with, at the paths lxrepo-server's proxy serves.
// authenticationType 1: the proxy brings a token; 0: NTLM.
inline CAuthenticationProxyConfiguration ProxyConfiguration(const std::string& proxyUrl,
                                                            const std::string& client,
                                                            const std::string& server,
                                                            int authenticationType = 0) {
    CAuthenticationProxyConfiguration config;
    config.proxyBaseUri = Wide(proxyUrl);
    config.registrationPath = L"/register";
    config.unregistrationPath = L"/unregister";
    config.proxyPath = L"/forward";
    config.connectPath = L"/connect";
    config.clientName = Wide(client);
    config.serverName = Wide(server);
    config.authenticationType = authenticationType;
    return config;
}

// Every host call of a test, in order, and the threads they came on: the library may call the
// readers on a worker thread.
class HostLog {
public:
    // "Prepare", "GetValue(3)", "CopyValue(3)", "GetName(a)", "GetValueIds(a)", "GetValueId(a,3)";
    // throws std::runtime_error("boom") if it is the one named by failOn.
    void Note(const std::string& what) {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_names.push_back(what);
        m_threads.insert(std::this_thread::get_id());
        if (what == failOn) {
            throw std::runtime_error("boom");
        }
    }
    std::vector<std::string> Names() const {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_names;
    }
    std::set<std::thread::id> Threads() const {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_threads;
    }

    std::string failOn;

private:
    mutable std::mutex m_mutex;
    std::vector<std::string> m_names;
    std::set<std::thread::id> m_threads;
};

// One column of the host's table: distinct values by index, value ids by row, both from 0.
struct Column {
    std::string name; // UTF-8, as every text of these records
    std::vector<std::string> values;
    std::vector<int> ids;
    int type = 0;
};

// The host's table: one attribute record per column, in column order, alive as long as this. A
// record is its column's readers too. CopyValue writes nothing for an empty value, as hosts do for
// a missing one, so the library must have cleared the buffer.
class HostTable {
public:
    explicit HostTable(const std::vector<Column>& columns) {
        for (const Column& column : columns) {
            m_records.push_back(std::make_unique<Record>(log, column));
            m_list.AddTail(m_records.back().get());
        }
    }
    CList<CRepoAttribute*>* Attributes() { return &m_list; }
    CDistinctValues* DistinctValues(std::size_t column) { return m_records.at(column).get(); }

    HostLog log;

private:
    struct Record final : CRepoAttribute, CDistinctValues, CValueIds {
        Record(HostLog& log, const Column& column) : log(log), column(column) {
            for (const std::string& value : column.values) {
                values.emplace_back(CString(value.c_str()).GetString());
            }
        }
        CString GetName() override {
            log.Note("GetName(" + column.name + ")");
            return CString(column.name.c_str());
        }
        // The host's own; the library never calls these two, so they note nothing.
        int GetType() override { return column.type; }
        CDistinctValues* GetDistinctValues() override { return this; }
        CValueIds* GetValueIds() override {
            log.Note("GetValueIds(" + column.name + ")");
            return this;
        }
        void Prepare() override { log.Note("Prepare"); }
        LPCWSTR GetValue(int index) override {
            log.Note("GetValue(" + std::to_string(index) + ")");
            return values.at(static_cast<std::size_t>(index)).c_str();
        }
        void CopyValue(int index, LPWSTR buffer) override {
            log.Note("CopyValue(" + std::to_string(index) + ")");
            const std::wstring& value = values.at(static_cast<std::size_t>(index));
            if (!value.empty()) {
                std::copy(value.c_str(), value.c_str() + value.size() + 1, buffer);
            }
        }
        int GetValueId(int row) override {
            log.Note("GetValueId(" + column.name + "," + std::to_string(row) + ")");
            return column.ids.at(static_cast<std::size_t>(row));
        }

        HostLog& log;
        Column column;
        std::vector<std::wstring> values;
    };

    std::vector<std::unique_ptr<Record>> m_records;
    CList<CRepoAttribute*> m_list;
};

// The host's attribute definitions with their value ranges and cases, owned for the test's length.
class HostDefinitions {
public:
    DesktopAttributeDTO& Add(const CString& name) {
        DesktopAttributeDTO& attribute = Append(m_list);
        attribute.AttributeName = name;
        return attribute;
    }
    CList<DesktopAttributeDTO*>* List() { return &m_list; }
    // A new value range or case at the end of an attribute's list.
    template <class Record> Record& Append(CList<Record*>& list) {
        m_records.emplace_back(new Record);
        list.AddTail(static_cast<Record*>(m_records.back().get()));
        return *list.GetTail();
    }

private:
    std::vector<std::unique_ptr<CObject>> m_records;
    CList<DesktopAttributeDTO*> m_list;
};

} // namespace testsupport
