#!/usr/bin/env python3
"""Checks the shipped Prometheus alerts and Grafana dashboard: promtool must
take the rules and pass their unit tests, and every expression of the rules
and the dashboard must parse and name only metrics the agent publishes (the
families and health series the README's HTTP API section lists, which its
own tests hold to the map). Exits 77 (skipped) without promtool or PyYAML.
    monitoring_files_test.py <source directory>"""

import json
import pathlib
import re
import shutil
import subprocess
import sys
import tempfile

try:
    import yaml
except ImportError:
    yaml = None

# PromQL words that are not metric names.
KEYWORDS = {"by", "without", "on", "ignoring", "group_left", "group_right", "and", "or", "unless", "bool",
            "offset", "inf", "nan"}
# Grafana's own variables, replaced by something PromQL takes.
GRAFANA_VARIABLES = {"$__rate_interval": "5m", "$__interval": "1m", "$__range": "1h"}


def published_metrics(readme):
    """The metric names the README's HTTP API section names in backquotes,
    less the raw table gauges (kzq_<table>_<attribute>), which are off by
    default."""
    section = re.search(r"^## HTTP API$(.*?)^## ", readme, re.M | re.S)
    if not section:
        raise SystemExit("README.md has no HTTP API section")
    names = re.findall(r"`((?:kzq|process)_[a-z0-9_]*[a-z0-9])(?:\{[^`]*\})?`", section.group(1))
    return {name for name in names if not name.startswith("kzq_kzq")}


def metric_names(expr):
    """The metric names an expression reads: what is left after strings,
    matchers, ranges, grouping clauses and function calls are removed."""
    text = re.sub(r'"(?:\\.|[^"\\])*"', '""', expr)
    text = re.sub(r"\{[^}]*\}|\[[^\]]*\]", " ", text)
    text = re.sub(r"\b(?:by|without|on|ignoring|group_left|group_right)\s*\([^)]*\)", " ", text)
    names = set()
    for match in re.finditer(r"(?<![\w.])([a-zA-Z_:][\w:]*)(\s*\()?", text):
        if not match.group(2) and match.group(1).lower() not in KEYWORDS:
            names.add(match.group(1))
    return names


def dashboard_exprs(dashboard):
    """Every query of the dashboard: its panels' (in rows too) and its
    template variables' label_values metrics, Grafana variables replaced."""
    exprs = []
    for panel in dashboard["panels"]:
        for inner in [panel] + panel.get("panels", []):
            exprs += [t["expr"] for t in inner.get("targets", [])]
    for variable in dashboard["templating"]["list"]:
        if variable["type"] == "query":
            query = variable["query"]["query"] if isinstance(variable["query"], dict) else variable["query"]
            found = re.fullmatch(r"label_values\((.*),\s*\w+\)", query)
            exprs.append(found.group(1) if found else query)
    for name, value in GRAFANA_VARIABLES.items():
        exprs = [e.replace(name, value) for e in exprs]
    return exprs


def check_dashboard(dashboard):
    problems = []
    if dashboard.get("schemaVersion", 0) < 36:
        problems.append(f"schemaVersion {dashboard.get('schemaVersion')} is below 36")
    variables = {v["name"]: v for v in dashboard["templating"]["list"]}
    if variables.get("datasource", {}).get("type") != "datasource" or variables["datasource"]["query"] != "prometheus":
        problems.append("no datasource variable of Prometheus data sources")
    if "server_id" not in variables:
        problems.append("no server_id variable")
    return problems


def promtool(*args, cwd):
    run = subprocess.run(["promtool", *args], cwd=cwd, capture_output=True, text=True)
    print(run.stdout + run.stderr, end="")
    return run.returncode == 0


def main():
    if len(sys.argv) != 2:
        raise SystemExit(__doc__)
    if not shutil.which("promtool") or yaml is None:
        print("skipped: needs promtool (Debian package prometheus) and PyYAML (python3-yaml)")
        return 77
    source = pathlib.Path(sys.argv[1])
    rules_dir = source / "packaging" / "prometheus"
    known = published_metrics((source / "README.md").read_text(encoding="utf-8"))
    ok = promtool("check", "rules", "kzq-alerts.yml", cwd=rules_dir)
    ok = promtool("test", "rules", "kzq-alerts.test.yml", cwd=rules_dir) and ok

    rules = yaml.safe_load((rules_dir / "kzq-alerts.yml").read_text(encoding="utf-8"))
    exprs = {f"alert {r['alert']}": r["expr"] for g in rules["groups"] for r in g["rules"]}
    dashboard = json.loads((source / "packaging" / "grafana" / "kzq-overview.json").read_text(encoding="utf-8"))
    for problem in check_dashboard(dashboard):
        print(f"kzq-overview.json: {problem}")
        ok = False
    for i, expr in enumerate(dashboard_exprs(dashboard)):
        exprs[f"dashboard query {i + 1}"] = expr

    for where, expr in exprs.items():
        unknown = metric_names(expr) - known
        if unknown:
            print(f"{where}: metrics the agent does not publish: {', '.join(sorted(unknown))}\n    {expr}")
            ok = False
    # The dashboard's queries as recording rules, so that promtool parses them.
    with tempfile.TemporaryDirectory() as scratch:
        records = [{"record": f"dashboard:query{i}", "expr": e} for i, e in enumerate(exprs.values())]
        path = pathlib.Path(scratch, "queries.yml")
        path.write_text(yaml.safe_dump({"groups": [{"name": "queries", "rules": records}]}), encoding="utf-8")
        ok = promtool("check", "rules", str(path), cwd=scratch) and ok
    print(f"{len(exprs)} expressions checked against {len(known)} published metrics")
    return 0 if ok else 1


if __name__ == "__main__":
    sys.exit(main())
