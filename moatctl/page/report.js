'use strict';
// The page does without this; it opens what is closed around a target, moves the focus there, and finds rules.
function show(target) {
  for (let at = target; at; at = at.parentElement)
    if (at.tagName === 'DETAILS') at.open = true;
  target.scrollIntoView({ block: 'center' });
  target.setAttribute('tabindex', '-1');
  target.focus({ preventScroll: true });
}
function follow() {
  const target = location.hash.length > 1 && document.getElementById(location.hash.slice(1));
  if (target) show(target);
}
window.addEventListener('hashchange', follow);
window.addEventListener('beforeprint', () => {
  for (const each of document.querySelectorAll('details')) each.open = true;
});
document.addEventListener('DOMContentLoaded', () => {
  const search = document.getElementById('search');
  const input = document.getElementById('words');
  const found = document.getElementById('found');
  search.hidden = false;
  input.addEventListener('input', () => {
    const words = input.value.toLowerCase().split(' ').filter(Boolean);
    let count = 0;
    for (const table of document.querySelectorAll('table.rules')) {
      const part = table.closest('details');
      let here = 0;
      for (const row of part.querySelectorAll('tbody tr')) {
        const text = row.textContent.toLowerCase();
        row.hidden = !words.every((word) => text.includes(word));
        if (!row.hidden) ++here;
      }
      part.hidden = words.length > 0 && here === 0;
      if (words.length > 0 && here > 0) part.open = true;
      count += here;
    }
    found.textContent = words.length === 0 ? '' : count + ' rules';
  });
  follow();
});
