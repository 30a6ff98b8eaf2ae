"""The barcode quality model on the Python side: the features and probability
of barcoding/barcode_quality.cpp (the same formula, for checks and for
evaluating a model before it is built into the program), the logistic fit
tools/calibrate.py uses, and the model file data/barcoding/vb_quality.tsv."""

import math
from dataclasses import dataclass

MAX_MARGIN = 20.0
MAX_QUALITY = 60
COEFFICIENTS = ("intercept", "margin", "presence", "conflict")
NO_VALUE = -math.inf


@dataclass
class End:
    """One end of a summary row with the evidence columns (EndEvidence)."""
    barcode: bool = False
    score: float = NO_VALUE
    presence: float = NO_VALUE
    over_rival: float = 0.0
    over_random: float = 0.0
    runner_up_score: float = NO_VALUE
    runner_up_presence: float = NO_VALUE
    window: int = 0


def features(front, rear):
    """(margin, presence, conflict) of a call, as WrongCallProbability computes them."""
    margin, presence, conflict = 0.0, -1.0, 0.0
    for end in (front, rear):
        if not end.barcode:
            continue
        presence = max(presence, end.presence / 100)
        if end.score > 0:
            margin += max(0.0, end.over_rival)
        elif end.runner_up_score > 0:
            conflict = max(conflict, end.runner_up_presence / 100)
    return min(margin, MAX_MARGIN), min(max(presence, -1.0), 1.0), min(conflict, 1.0)


def linear(model, x):
    return model["intercept"] + sum(model[name] * v for name, v in zip(COEFFICIENTS[1:], x))


def sigmoid(z):
    return 1 / (1 + math.exp(-z)) if z > -700 else 0.0


def probability(model, front, rear):
    return sigmoid(linear(model, features(front, rear)))


def phred(p):
    if not p > 0:
        return MAX_QUALITY
    return int(min(max(round_half_away(-10 * math.log10(p)), 0), MAX_QUALITY))


def round_half_away(x):
    """std::round: halves away from zero (Python's round takes them to even)."""
    return math.floor(x + 0.5) if x >= 0 else -math.floor(-x + 0.5)


def read_model(path):
    model = {}
    with open(path) as f:
        for line in f:
            if line.startswith("#") or not line.strip():
                continue
            name, value = line.rstrip("\n").split("\t")
            model[name] = float(value)
    missing = [c for c in COEFFICIENTS if c not in model]
    if missing:
        raise ValueError(f"{path}: no value for {', '.join(missing)}")
    return model


def write_model(path, model, comment):
    with open(path, "w") as f:
        for line in comment:
            f.write(f"# {line}\n")
        for name in COEFFICIENTS:
            f.write(f"{name}\t{model[name]:.6g}\n")


# ------------------------------------------------------------------ fitting


def _solve(a, b):
    """a x = b by Gauss-Jordan with partial pivoting (a is small and positive definite)."""
    n = len(b)
    m = [row[:] + [b[i]] for i, row in enumerate(a)]
    for i in range(n):
        p = max(range(i, n), key=lambda r: abs(m[r][i]))
        m[i], m[p] = m[p], m[i]
        for r in range(n):
            if r != i:
                f = m[r][i] / m[i][i]
                for c in range(i, n + 1):
                    m[r][c] -= f * m[i][c]
    return [m[i][n] / m[i][i] for i in range(n)]


def _log_likelihood(beta, xs, ys, ws, ridge):
    total = 0.0
    for x, y, w in zip(xs, ys, ws):
        z = beta[0] + sum(b * v for b, v in zip(beta[1:], x))
        log1pexp = z + math.log1p(math.exp(-z)) if z > 0 else math.log1p(math.exp(z))
        total += w * (y * z - log1pexp)
    return total - 0.5 * ridge * sum(b * b for b in beta[1:])


def fit(xs, ys, ws, ridge=1e-3, iterations=60):
    """Weighted logistic regression by Newton's method with step halving:
    {coefficient: value}. xs: feature tuples, ys: 1 for a wrong call, ws:
    weights. A small ridge on the slopes keeps a separable sample finite."""
    k = len(COEFFICIENTS)
    wrong = sum(w * y for w, y in zip(ws, ys))
    beta = [math.log((wrong + 0.5) / (sum(ws) - wrong + 0.5))] + [0.0] * (k - 1)
    ll = _log_likelihood(beta, xs, ys, ws, ridge)
    for _ in range(iterations):
        hessian = [[0.0] * k for _ in range(k)]
        gradient = [0.0] * k
        for x, y, w in zip(xs, ys, ws):
            v = (1.0,) + tuple(x)
            p = sigmoid(beta[0] + sum(b * e for b, e in zip(beta[1:], x)))
            r, s = w * (y - p), w * p * (1 - p)
            for i in range(k):
                gradient[i] += r * v[i]
                row, si = hessian[i], s * v[i]
                for j in range(i, k):
                    row[j] += si * v[j]
        for i in range(k):
            if i > 0:
                gradient[i] -= ridge * beta[i]
                hessian[i][i] += ridge
            hessian[i][i] += 1e-12
            for j in range(i):
                hessian[i][j] = hessian[j][i]
        step_direction = _solve(hessian, gradient)
        step = 1.0
        while True:
            trial = [b + step * d for b, d in zip(beta, step_direction)]
            trial_ll = _log_likelihood(trial, xs, ys, ws, ridge)
            if trial_ll >= ll - 1e-9 or step < 1e-6:
                break
            step /= 2
        beta, ll = trial, trial_ll
        if max(abs(step * d) for d in step_direction) < 1e-6:
            break
    return dict(zip(COEFFICIENTS, beta))
