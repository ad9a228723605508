// The form that changes how the collector answers. What it shows is what the collector says, which
// another page or a script may have changed.

export async function post(path, body) {
  const answer = await fetch(path, {
    method: "POST",
    headers: { "Content-Type": "application/json" },
    body: JSON.stringify(body),
  });
  const value = await answer.json();
  if (!answer.ok) throw new Error(value.error);
}

export class Switches {
  #form = document.getElementById("behaviour");
  #access = document.getElementById("access-choice");
  #refusal = document.getElementById("refusal");
  #shown = {};
  #healthy = {};

  constructor() {
    this.#form.addEventListener("submit", (event) => event.preventDefault());
    this.#form.addEventListener("change", (event) => this.#changed(event.target));
    document.getElementById("healthy").addEventListener("click", () => this.#send(this.#healthy));
  }

  show({ behaviour, healthy }) {
    this.#healthy = healthy;
    let different = 0;
    for (const [key, value] of Object.entries(behaviour)) {
      const field = this.#form.elements[key];
      if (!field) continue;
      const differs = value !== healthy[key];
      different += differs;
      field.classList.toggle("differs", differs);
      if (key === "access") this.#showAccess(field, value, differs);
      // What is being typed stays, unless the value itself has changed.
      const typing = document.activeElement === field && this.#shown[key] === value;
      if (!typing) this.#fill(field, value);
    }
    this.#shown = behaviour;
    document.getElementById("changed").textContent = different ? `${different} changed` : "";
  }

  #showAccess(field, value, differs) {
    this.#access.classList.toggle("differs", differs);
    const choosing = this.#access.value === "" && this.#shown.access === value;
    if (choosing) return;
    const known = [...this.#access.options].some((option) => option.value === value && value);
    this.#access.value = known ? value : "";
    field.hidden = known;
  }

  #fill(field, value) {
    field.value = value ?? "";
    field.removeAttribute("aria-invalid");
  }

  #changed(field) {
    if (field === this.#access) {
      const other = this.#form.elements.access;
      other.hidden = field.value !== "";
      if (other.hidden) this.#send({ access: field.value }, field);
      else other.focus();
      return;
    }
    if (!field.checkValidity()) {
      this.#refuse(`${field.labels[0].textContent}: ${field.validationMessage}`, field);
      return;
    }
    let value = field.type === "number" ? field.valueAsNumber : field.value;
    if (field.name === "host" && value === "") value = null;
    this.#send({ [field.name]: value }, field);
  }

  async #send(changes, field) {
    try {
      await post("/api/behaviour", changes);
      this.#refusal.textContent = "";
      for (const each of this.#form.elements) each.removeAttribute("aria-invalid");
    } catch (error) {
      // A value that did not get there must not look as if it were in force.
      if (error instanceof TypeError) this.#putBack();
      this.#refuse(error.message, field);
    }
  }

  #putBack() {
    for (const [key, value] of Object.entries(this.#shown)) {
      const field = this.#form.elements[key];
      if (field) this.#fill(field, value);
    }
    this.#access.value = this.#shown.access;
    this.#showAccess(this.#form.elements.access, this.#shown.access,
      this.#shown.access !== this.#healthy.access);
  }

  #refuse(text, field) {
    this.#refusal.textContent = text;
    field?.setAttribute("aria-invalid", "true");
  }
}
