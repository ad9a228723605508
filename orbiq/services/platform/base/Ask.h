#pragma once

#include <memory>
#include <type_traits>
#include <utility>

namespace orbiq {

/// Asks an object that may be absent. An absent object answers false, 0 or null, whatever it is
/// asked: `ask(access, &orbiqAccess::host)`.
template <class Answer, class Class, class Subject, class... Arguments>
Answer ask(const std::shared_ptr<Subject>& object, Answer (Class::*question)(Arguments...) const,
           std::type_identity_t<Arguments>... arguments) {
  return object ? (object.get()->*question)(std::forward<Arguments>(arguments)...) : Answer{};
}
template <class Answer, class Class, class Subject, class... Arguments>
Answer ask(const std::shared_ptr<Subject>& object, Answer (Class::*question)(Arguments...),
           std::type_identity_t<Arguments>... arguments) {
  return object ? (object.get()->*question)(std::forward<Arguments>(arguments)...) : Answer{};
}

}  // namespace orbiq
