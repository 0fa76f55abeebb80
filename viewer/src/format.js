// How numbers read: the same units as the reports of the command line.

const group = new Intl.NumberFormat('en-US');

export function count(value) {
  return group.format(Math.round(value));
}

/** Nanoseconds in the unit that suits them. */
export function time(ns) {
  const size = Math.abs(ns);
  if (size < 1e3) return `${Math.round(ns)} ns`;
  if (size < 1e6) return `${(ns / 1e3).toFixed(1)} µs`;
  if (size < 1e9) return `${(ns / 1e6).toFixed(2)} ms`;
  if (size < 1e12) return `${(ns / 1e9).toFixed(3)} s`;
  return `${(ns / 60e9).toFixed(1)} min`;
}

/** Seconds with as many digits as a span of `spanNs` needs to tell its parts apart. */
export function clock(ns, spanNs) {
  const digits = Math.max(0, Math.min(6, 2 - Math.floor(Math.log10(Math.max(spanNs, 1) / 1e9))));
  return `${(ns / 1e9).toFixed(digits)} s`;
}

export function bytes(value) {
  const units = ['B', 'KiB', 'MiB', 'GiB', 'TiB', 'PiB', 'EiB'];
  let unit = 0;
  let size = Math.abs(value);
  for (; size >= 1024 && unit + 1 < units.length; ++unit) size /= 1024;
  const digits = unit === 0 ? 0 : size < 10 ? 2 : 1;
  return `${value < 0 ? '−' : ''}${size.toFixed(digits)} ${units[unit]}`;
}

export function percent(part, whole) {
  if (!(whole > 0)) return '0 %';
  const share = (100 * part) / whole;
  return `${share.toFixed(share < 9.995 ? 2 : 1)} %`;
}

export function plural(value, one) {
  return `${count(value)} ${one}${Math.round(value) === 1 ? '' : 's'}`;
}

/** A function's name without its parameters and template arguments, where these make it long. */
export function shortName(name, longest = 60) {
  if (name.length <= longest) return name;
  let depth = 0;
  let out = '';
  for (let i = 0; i < name.length; ++i) {
    const c = name[i];
    const opens = (c === '<' || c === '(') && !out.endsWith('operator') && !out.endsWith('operator<');
    if (opens && name.startsWith('(anonymous namespace)', i) && depth === 0) {
      out += '(anon)';
      i += '(anonymous namespace)'.length - 1;
    } else if (opens) {
      if (depth++ === 0) out += c === '<' ? '<…>' : '(…)';
    } else if ((c === '>' || c === ')') && depth > 0 && name[i - 1] !== '-') {
      --depth;
    } else if (depth === 0) {
      out += c;
    }
  }
  return out.length > longest ? `${out.slice(0, longest - 1)}…` : out;
}

export function date(secondsSince1970) {
  return secondsSince1970 > 0 ? new Date(secondsSince1970 * 1000).toISOString().replace('T', ' ').slice(0, 19) + ' UTC' : '';
}
