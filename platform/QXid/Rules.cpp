#include <QXid/Rules.h>

#include <utility>

AtomicValue::AtomicValue(std::wstring text) : m_s(std::move(text)) {}

EvalData::~EvalData() = default;
