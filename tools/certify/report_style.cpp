#include "certify/report_style.h"

namespace tessel::certify {

// Verdicts keep their colors apart for every kind of color vision and have a mark or a word beside the color.
// Dark and light differ in the variables alone; paper is always light.
const std::string_view report_style = R"css(
:root { color-scheme: light dark; --page: #f4f6f8; --card: #ffffff; --inset: #f4f6f8; --ink: #18212b;
  --soft: #566370; --line: #d9dfe5; --link: #1760a8; --mark: #ffffff;
  --pass: #1f7a4d; --fail: #b3261e; --error: #6741d9; --skipped: #7a828a;
  --missing: #d9480f; --mismatched: #6741d9; --unexpected: #1971c2;
  --truth: #d3f0de; --handler: #fbd9d5;
  --s0: #1971c2; --s1: #d9480f; --s2: #6741d9; --s3: #0b7a75; --s4: #b5179e; --s5: #8a5a00; }
@media screen and (prefers-color-scheme: dark) {
  :root { --page: #12171c; --card: #1b2229; --inset: #141a20; --ink: #e8edf2; --soft: #9fabb8; --line:
  #333d47;
    --link: #7ab8f5; --pass: #2a8f5c; --fail: #d0493f; --error: #8f76ee; --skipped: #68727d; --missing:
  #ff8c42;
    --mismatched: #9f85ff; --unexpected: #5aa9f0; --truth: #1d4a33; --handler: #5c2622;
    --s0: #5aa9f0; --s1: #ff8c42; --s2: #9f85ff; --s3: #3cc4bd; --s4: #f06fd8; --s5: #d9a441; } }
* { box-sizing: border-box; }
html { scroll-padding-top: 12px; }
body { margin: 0; background: var(--page); color: var(--ink); font: 15px/1.5 system-ui, "DejaVu Sans",
  sans-serif; }
main { max-width: 1120px; margin: 0 auto; padding: 24px 20px 56px; }
a { color: var(--link); }
:focus-visible { outline: 3px solid var(--link); outline-offset: 2px; border-radius: 4px; }
.skip { position: absolute; left: -9999px; } .skip:focus { position: static; }
h1 { font-size: 30px; line-height: 1.2; margin: 0; } h2 { font-size: 18px; margin: 0 0 12px; }
h4 { font-size: 14px; margin: 18px 0 6px; } h5 { font-size: 14px; font-weight: 400; margin: 0 0 6px; }
p { margin: 6px 0 0; } .soft { color: var(--soft); }
code, pre { font: 12.5px/1.55 ui-monospace, "DejaVu Sans Mono", monospace; }
pre { white-space: pre-wrap; overflow-wrap: anywhere; margin: 4px 0 0; background: var(--inset);
  border: 1px solid var(--line); border-radius: 8px; padding: 8px 12px; max-height: 420px; overflow: auto; }
pre i, .message pre i { color: var(--soft); font-style: normal; }
pre.command { user-select: all; }
.verdict { border-radius: 14px; padding: 24px 28px; color: #ffffff; display: flex; gap: 24px; align-items:
  center;
  flex-wrap: wrap; }
.verdict.pass { background: #17703f; } .verdict.fail { background: #b3261e; } .verdict.error { background:
  #5b39c4; }
.verdict.skipped { background: #5c646c; }
.verdict > div { flex: 1 1 420px; min-width: 0; } .verdict p { font-size: 16px; overflow-wrap: anywhere; }
.verdict code { font-size: 13px; opacity: .92; }
.ring { flex: none; width: 104px; height: 104px; } .ring text { font: 600 22px system-ui, "DejaVu Sans",
  sans-serif;
  fill: #ffffff; } .ring circle { fill: none; stroke-width: 10; stroke: #ffffff; stroke-opacity: .28; }
.ring .share { stroke-opacity: 1; }
.tiles { display: grid; grid-template-columns: repeat(auto-fit, minmax(130px, 1fr)); gap: 12px; margin:
  16px 0 0; }
.tile, section { background: var(--card); border: 1px solid var(--line); border-radius: 12px; }
.tile { padding: 12px 16px; border-top-width: 4px; }
.tile b { display: block; font-size: 22px; font-variant-numeric: tabular-nums; } .tile span { color:
  var(--soft); }
.tile.pass { border-top-color: var(--pass); } .tile.fail { border-top-color: var(--fail); }
.tile.error { border-top-color: var(--error); } .tile.skipped { border-top-color: var(--skipped); }
section { padding: 18px 20px; margin-top: 16px; overflow-x: auto; }
svg.groups, svg.load { min-width: 600px; }
.causes ol { margin: 0; padding: 0; list-style: none; }
.causes li { border-left: 4px solid var(--fail); background: var(--inset); border-radius: 0 8px 8px 0;
  padding: 10px 14px; margin-top: 8px; overflow-wrap: anywhere; }
.causes li b { display: block; font-weight: 600; } .causes li a { font-size: 13px; }
svg { display: block; width: 100%; height: auto; }
svg text { font: 13px system-ui, "DejaVu Sans", sans-serif; fill: var(--soft); } svg .name { fill: var(--ink);
  font-size: 14px; }
svg rect.pass { fill: var(--pass); } svg rect.fail { fill: var(--fail); } svg rect.error { fill:
  var(--error); }
svg rect.skipped { fill: var(--skipped); } svg a:hover rect, svg a:focus-visible rect { stroke: var(--ink);
  stroke-width: 2; } svg .mark { fill: none; stroke: var(--mark); stroke-width: 2; }
svg rect.matched { fill: var(--pass); } svg rect.mismatched { fill: var(--mismatched); }
svg rect.missing { fill: var(--missing); } svg rect.unexpected { fill: var(--unexpected); }
svg.lines { height: 8px; border-radius: 4px; margin-top: 10px; }
svg .grid { stroke: var(--line); } svg .axis { stroke: var(--soft); }
svg .curve { fill: none; stroke-width: 2.5; } svg line.limit { stroke-dasharray: 5 4; stroke-width: 1.5; }
circle.clear { fill: var(--card) !important; stroke-width: 2.5; }
.s0 { stroke: var(--s0); } .s1 { stroke: var(--s1); } .s2 { stroke: var(--s2); } .s3 { stroke: var(--s3); }
.s4 { stroke: var(--s4); } .s5 { stroke: var(--s5); }
circle.s0, .key.s0 { fill: var(--s0); background: var(--s0); } circle.s1, .key.s1 { fill: var(--s1);
  background: var(--s1); } circle.s2, .key.s2 { fill: var(--s2); background: var(--s2); }
circle.s3, .key.s3 { fill: var(--s3); background: var(--s3); } circle.s4, .key.s4 { fill: var(--s4);
  background: var(--s4); } circle.s5, .key.s5 { fill: var(--s5); background: var(--s5); }
.curve.s1, .curve.s4 { stroke-dasharray: 9 4; } .curve.s2, .curve.s5 { stroke-dasharray: 2 4; }
.legend b { color: var(--ink); }
.legend { color: var(--soft); font-size: 13px; margin: 0 0 6px; }
.key { display: inline-block; width: 12px; height: 12px; border-radius: 3px; margin: 0 6px -1px 0; }
.legend span + .key { margin-left: 18px; }
.wide { overflow-x: auto; }
table { border-collapse: collapse; width: 100%; font-variant-numeric: tabular-nums; }
th { text-align: left; color: var(--soft); font-size: 13px; font-weight: 600; }
th, td { padding: 5px 14px 5px 0; border-bottom: 1px solid var(--line); vertical-align: top; }
tr:last-child > td, tr:last-child > th { border-bottom: 0; } table.narrow { width: auto; margin-top: 8px; }
td.number, th.number { text-align: right; }
.matrix td a { text-decoration: none; display: inline-block; }
.badge { display: inline-block; min-width: 62px; text-align: center; border-radius: 6px; padding: 1px 8px;
  color: #ffffff; font-size: 12.5px; font-weight: 600; }
.badge.pass { background: #1f7a4d; } .badge.fail { background: #b3261e; } .badge.error { background:
  #6741d9; }
.badge.skipped { background: #646c75; }
.filter { display: inline-block; margin: 0 4px 12px 0; }
input[name=show] { position: absolute; opacity: 0; }
.filter { border: 1px solid var(--line); border-radius: 999px; padding: 3px 14px; cursor: pointer;
  color: var(--soft); }
#show-all:checked ~ .for-all, #show-not:checked ~ .for-not, #show-pass:checked ~ .for-pass {
  background: var(--ink); color: var(--card); border-color: var(--ink); }
#show-all:focus-visible ~ .for-all, #show-not:focus-visible ~ .for-not, #show-pass:focus-visible ~ .for-pass {
  outline: 3px solid var(--link); outline-offset: 2px; }
#show-not:checked ~ .case.pass, #show-pass:checked ~ .case:not(.pass) { display: none; }
#show-not:checked ~ h3 { display: none; } #show-pass:checked ~ h3 { display: none; }
h3 { font-size: 14px; color: var(--soft); margin: 18px 0 6px; text-transform: uppercase; letter-spacing:
  .06em; }
.case { border: 1px solid var(--line); border-left: 5px solid var(--skipped); border-radius: 8px;
  margin-top: 6px; }
.case.pass { border-left-color: var(--pass); } .case.fail { border-left-color: var(--fail); }
.case.error { border-left-color: var(--error); } .case:target { outline: 3px solid var(--link); }
.case > summary { cursor: pointer; padding: 7px 12px; display: flex; gap: 10px; align-items: baseline;
  flex-wrap: wrap; list-style: none; } .case > summary::-webkit-details-marker { display: none; }
.case > summary .title { color: var(--soft); flex: 1 1 240px; } .case > summary code { font-size: 13.5px; }
.case > summary .why { flex-basis: 100%; color: var(--ink); font-size: 13.5px; overflow-wrap: anywhere; }
.case .body { padding: 2px 16px 16px; border-top: 1px solid var(--line); }
.reason { font-size: 16px; font-weight: 600; overflow-wrap: anywhere; margin-top: 12px; }
.counts { display: flex; flex-wrap: wrap; gap: 6px 28px; margin: 10px 0 0; } .counts dt { color: var(--soft);
  font-size: 13px; } .counts dd { margin: 0; font-size: 16px; font-variant-numeric: tabular-nums; }
.counts .mismatched dd { color: var(--mismatched); font-weight: 600; } .counts .missing dd { color:
  var(--missing);
  font-weight: 600; } .counts .unexpected dd { color: var(--unexpected); font-weight: 600; }
.difference { border: 1px solid var(--line); border-left: 4px solid var(--mismatched); border-radius: 0 8px
  8px 0;
  padding: 10px 14px; margin-top: 8px; } .difference.missing { border-left-color: var(--missing); }
.difference.unexpected { border-left-color: var(--unexpected); }
.pair th { width: 76px; } .pair td, .pair th { border: 0; padding: 2px 0; overflow-wrap: anywhere; }
.truth mark { background: var(--truth); } .handler mark { background: var(--handler); }
mark { color: inherit; border-radius: 3px; padding: 1px 2px; } .tag { border: 1px solid var(--line);
  border-radius: 999px; padding: 0 8px; color: var(--soft); font-size: 12.5px; }
.message { display: flex; flex-wrap: wrap; gap: 8px 20px; align-items: flex-start; }
.message pre { flex: none; max-width: 100%; white-space: pre; } .fields { width: auto; flex: 1 1 300px; }
.fields th, .fields td { padding: 1px 14px 1px 0; font: 12.5px/1.5 ui-monospace, "DejaVu Sans Mono",
  monospace; }
details details summary, article summary { cursor: pointer; color: var(--soft); margin-top: 6px; }
footer { color: var(--soft); font-size: 13px; margin-top: 20px; overflow-wrap: anywhere; }
@media (max-width: 640px) { h1 { font-size: 24px; } .ring { display: none; } .pair th { display: block; } }
@media print { body { background: #ffffff; font-size: 12px; } main { max-width: none; padding: 0; }
  .filter, .skip { display: none; } section, .tile { break-inside: avoid-page; } section.cases {
  break-inside: auto; }
  .case, .difference { break-inside: avoid; } pre { max-height: none; }
  .verdict, .badge, svg, mark, .causes li { print-color-adjust: exact; -webkit-print-color-adjust: exact; } }
)css";

}  // namespace tessel::certify
