// Keys that work wherever the focus is, but for fields in which one types.

export function bindKeys(actions) {
  document.addEventListener("keydown", (event) => {
    const action = actions[event.key];
    const typing = event.target.matches("input, select, textarea");
    if (!action || typing || event.ctrlKey || event.altKey || event.metaKey || event.defaultPrevented) return;
    event.preventDefault();
    action();
  });
}
