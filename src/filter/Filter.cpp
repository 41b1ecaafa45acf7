// Filter expressions: the public class over the compiled program.
#include "WexOamBinLogXmlReader/Filter.h"

#include "filter/Program.h"

namespace Tav {

struct Filter::Impl {
    std::string expression;
    detail::filter::Program program;
};

Filter::Filter() : impl_(new Impl) {}

Filter::~Filter() = default;

std::unique_ptr<Filter> Filter::compile(const std::string& expression, std::string& error,
                                        std::size_t& position) {
    std::unique_ptr<Filter> filter(new Filter);
    if (!detail::filter::compileProgram(expression, filter->impl_->program, error, position)) {
        return nullptr;
    }
    filter->impl_->expression = expression;
    error.clear();
    position = 0;
    return filter;
}

Filter::Verdict Filter::checkHeader(const Record& record) const {
    switch (detail::filter::evaluate(impl_->program, record, false)) {
        case detail::filter::Truth::False:
            return Verdict::Reject;
        case detail::filter::Truth::True:
            return Verdict::Accept;
        case detail::filter::Truth::Unknown:
            break;
    }
    return Verdict::Values;
}

bool Filter::matches(const Record& record) const {
    // The header first, so that a record it decides is not decoded.
    const detail::filter::Truth header = detail::filter::evaluate(impl_->program, record, false);
    if (header != detail::filter::Truth::Unknown) {
        return header == detail::filter::Truth::True;
    }
    return detail::filter::evaluate(impl_->program, record, true) == detail::filter::Truth::True;
}

bool Filter::usesValues() const {
    return impl_->program.usesValues;
}

const std::string& Filter::expression() const {
    return impl_->expression;
}

}  // namespace Tav
