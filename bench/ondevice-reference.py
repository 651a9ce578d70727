#!/usr/bin/env python3
"""The reference side of bench/ondevice: faster-whisper on the same audio and the same weights.

Usage: ondevice-reference.py MODEL_DIR AUDIO THREADS [LANGUAGE [COMPUTE_TYPE [words]]]

Prints one JSON object on standard output: the seconds spent transcribing (decoding the audio included,
loading the model not), the compute type in use, and the segments as [start, end, text].
Greedy decoding without fallback and without voice activity filtering, as the benchmark asks of both sides.
With "words", word timestamps are on, and the segments start and end with their words.
"""

import json
import sys
import time

from faster_whisper import WhisperModel


def main() -> int:
    model_dir, audio, threads = sys.argv[1], sys.argv[2], int(sys.argv[3])
    language = sys.argv[4] if len(sys.argv) > 4 and sys.argv[4] else None
    # "default" keeps the weights' precision where the processor computes in it (float32 for float16 weights here).
    compute_type = sys.argv[5] if len(sys.argv) > 5 else "default"
    word_timestamps = len(sys.argv) > 6 and sys.argv[6] == "words"
    model = WhisperModel(model_dir, device="cpu", compute_type=compute_type, cpu_threads=threads, num_workers=1)

    started = time.perf_counter()
    segments, _info = model.transcribe(
        audio,
        language=language,
        beam_size=1,
        best_of=1,
        temperature=0.0,
        vad_filter=False,
        condition_on_previous_text=True,
        word_timestamps=word_timestamps,
    )
    found = [[s.start, s.end, s.text] for s in segments]  # the generator does the work
    elapsed = time.perf_counter() - started

    print(json.dumps({"seconds": elapsed, "compute_type": model.model.compute_type, "segments": found}))
    return 0


if __name__ == "__main__":
    sys.exit(main())
