#pragma once

#include <functional>
#include <memory>
#include <type_traits>
#include <utility>

namespace orbiq {

/// Asks an object that may be absent. An absent object answers false, 0 or null, whatever it is
/// asked: `ask(access, &orbiqAccess::host)`.
template <class Subject, class Question, class... Arguments>
auto ask(const std::shared_ptr<Subject>& object, Question question, Arguments&&... arguments) {
  using Answer = std::invoke_result_t<Question, Subject&, Arguments...>;
  return object ? std::invoke(question, *object, std::forward<Arguments>(arguments)...) : Answer{};
}

}  // namespace orbiq
