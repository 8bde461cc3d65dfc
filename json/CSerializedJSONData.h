#pragma once

#include <utility>

#include "platform/base/Data.h"
#include "platform/base/Export.h"
#include "platform/base/Object.h"

namespace velkor {

/// Holds bytes that are JSON text already; the writer copies them unchanged.
class VELKOR_EXPORT CSerializedJSONData : public NS::Object {
public:
    explicit CSerializedJSONData(NS::Data data) : m_data(std::move(data)) {}
    const NS::Data& data() const noexcept { return m_data; }
    std::string_view className() const noexcept override { return "CSerializedJSONData"; }

private:
    NS::Data m_data;
};

}  // namespace velkor
