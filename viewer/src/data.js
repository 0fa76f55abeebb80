// The page's data, as rumbel/view/PageBuilder.h lays it out: four bytes with the length of a JSON text, the text, zeros up
// to a multiple of eight, and columns of numbers that the JSON refers to by their numbers.

const kVersion = 1;

/** @param {string} text base64 @returns {Uint8Array} */
export function fromBase64(text) {
  if (Uint8Array.fromBase64) return Uint8Array.fromBase64(text);
  const binary = atob(text);
  const bytes = new Uint8Array(binary.length);
  for (let i = 0; i < bytes.length; ++i) bytes[i] = binary.charCodeAt(i);
  return bytes;
}

/** @param {Uint8Array} bytes zlib's format @returns {Promise<Uint8Array>} */
export async function inflated(bytes) {
  const stream = new Blob([bytes]).stream().pipeThrough(new DecompressionStream('deflate'));
  return new Uint8Array(await new Response(stream).arrayBuffer());
}

/** Reads the whole. Throws an Error that says what is wrong. */
export class PageData {
  /** @param {Uint8Array} bytes at the beginning of its buffer */
  constructor(bytes) {
    const length = new DataView(bytes.buffer).getUint32(0, true);
    this.json = JSON.parse(new TextDecoder().decode(bytes.subarray(4, 4 + length)));
    if (this.json.version !== kVersion) throw new Error(`the page's data has version ${this.json.version}`);
    this._bytes = bytes;
    this._columnsAt = Math.ceil((4 + length) / 8) * 8;
    this._read = new Map();
  }

  /** @param {number} number @returns {ArrayLike<number>} the column; read once */
  column(number) {
    let values = this._read.get(number);
    if (!values) {
      const [offset, width, count, differences] = this.json.columns[number];
      const Type = { 1: Uint8Array, 2: Uint16Array, 4: Uint32Array, 8: Float64Array }[width];
      values = new Type(this._bytes.buffer, this._columnsAt + offset, count);
      if (differences) values = summedUp(values);
      this._read.set(number, values);
    }
    return values;
  }
}

/** Undoes PageColumns::addDifferences: zigzag-coded differences become values. */
export function summedUp(coded) {
  const values = new Float64Array(coded.length);
  let value = 0;
  for (let i = 0; i < coded.length; ++i) {
    const code = coded[i];
    value += code % 2 === 0 ? code / 2 : -(code + 1) / 2;
    values[i] = value;
  }
  return values;
}

/** @param {string} text content of the page's data element */
export async function readPageData(text) {
  return new PageData(await inflated(fromBase64(text.trim())));
}
