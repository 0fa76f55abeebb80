// Elements. Text is only ever set as text: names in a recording are foreign.

/**
 * @param {string} tag "div.class1.class2"
 * @param {object} [properties] `on…` are listeners, others attributes; null and false leave one out
 * @param {...(Node|string|null)} children
 */
export function h(tag, properties, ...children) {
  const [name, ...classes] = tag.split('.');
  const element = document.createElement(name);
  if (classes.length > 0) element.className = classes.join(' ');
  for (const [key, value] of Object.entries(properties || {})) {
    if (value === null || value === undefined || value === false) continue;
    if (key.startsWith('on')) element.addEventListener(key.slice(2), value);
    else element.setAttribute(key, value === true ? '' : String(value));
  }
  for (const child of children.flat(Infinity)) {
    if (child !== null && child !== undefined) element.append(child);
  }
  return element;
}

export function replaceChildren(element, ...children) {
  element.replaceChildren(...children.flat(Infinity).filter((child) => child !== null && child !== undefined));
}

/** A labelled choice. @param {[string, string][]} options value and text */
export function select(label, options, value, onChange) {
  const element = h('select', { 'aria-label': label, onchange: () => onChange(element.value) });
  setOptions(element, options, value);
  return element;
}

export function setOptions(element, options, value) {
  replaceChildren(
    element,
    options.map(([key, text]) => h('option', { value: key, selected: key === value }, text)),
  );
}

/** A button that stays pressed. */
export function toggle(text, pressed, onChange, title = null) {
  const element = h('button.toggle', { type: 'button', 'aria-pressed': String(pressed), title }, text);
  element.addEventListener('click', () => {
    const now = element.getAttribute('aria-pressed') !== 'true';
    element.setAttribute('aria-pressed', String(now));
    onChange(now);
  });
  return element;
}

/** Runs `work` once before the next picture, however often it is asked for. */
export function scheduled(work) {
  let waiting = false;
  return () => {
    if (waiting) return;
    waiting = true;
    requestAnimationFrame(() => {
      waiting = false;
      work();
    });
  };
}

/** A canvas's drawing context for its size on the page, in CSS pixels. */
export function sized(canvas, width, height) {
  const ratio = window.devicePixelRatio || 1;
  const w = Math.max(1, Math.round(width * ratio));
  const hgt = Math.max(1, Math.round(height * ratio));
  if (canvas.width !== w || canvas.height !== hgt) {
    canvas.width = w;
    canvas.height = hgt;
    canvas.style.width = `${width}px`;
    canvas.style.height = `${height}px`;
  }
  const context = canvas.getContext('2d');
  context.setTransform(ratio, 0, 0, ratio, 0, 0);
  return context;
}

/** A colour of the style sheet. */
export function color(name) {
  return getComputedStyle(document.documentElement).getPropertyValue(`--${name}`).trim();
}
