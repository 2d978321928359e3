// Audio worklets: capture hands the microphone's samples to the page; playback
// plays converted samples from a ring, starting (and restarting after an
// underrun) only once a small cushion is queued, so network jitter does not
// become clicks.

class Capture extends AudioWorkletProcessor {
  process(inputs) {
    const channel = inputs[0] && inputs[0][0];
    if (channel) this.port.postMessage(channel.slice(0));
    return true;
  }
}

class Playback extends AudioWorkletProcessor {
  constructor(options) {
    super();
    const rate = sampleRate;
    this.ring = new Float32Array(Math.ceil(rate * 2));
    this.read = 0;
    this.write = 0;
    this.cushion = Math.round(rate * options.processorOptions.cushionSeconds);
    this.playing = false;
    this.underruns = 0;
    this.port.onmessage = (event) => this.push(event.data);
  }

  push(samples) {
    const free = this.ring.length - (this.write - this.read);
    const n = Math.min(samples.length, free);      // a full ring drops the newest
    for (let i = 0; i < n; i++) this.ring[(this.write + i) % this.ring.length] = samples[i];
    this.write += n;
  }

  process(inputs, outputs) {
    const out = outputs[0][0];
    const queued = this.write - this.read;
    if (!this.playing && queued >= this.cushion + out.length) this.playing = true;
    if (!this.playing) {
      out.fill(0);
    } else {
      const n = Math.min(out.length, queued);
      for (let i = 0; i < n; i++) out[i] = this.ring[(this.read + i) % this.ring.length];
      out.fill(0, n);
      this.read += n;
      if (n < out.length) {
        this.playing = false;
        this.underruns += 1;
        this.port.postMessage({underruns: this.underruns});
      }
    }
    for (let c = 1; c < outputs[0].length; c++) outputs[0][c].set(out);
    return true;
  }
}

registerProcessor("corvina-capture", Capture);
registerProcessor("corvina-playback", Playback);
